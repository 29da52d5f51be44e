#pragma once

#include <string>

// Operations on single files. Stateless, so any thread may call them.
class CFile {
 public:
  // The text of a symbolic link as it is stored, resolved no further and cut after 1023 characters. A failure is traced
  // at level 2 and leaves target as it was.
  static bool GetSymbolicLink(std::string& target, const std::string& path);
};
