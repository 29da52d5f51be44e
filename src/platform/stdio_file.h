#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Reads text files line by line. Stateless, so any thread may call it. A failure is traced at level 1 and gives false.
class CStdioFile {
 public:
  // Appends the lines of the file without their newlines; a last line that has none counts as well. Every other byte is
  // kept. False when the file cannot be opened; what can be opened but not read (a directory) has no lines.
  static bool ReadFile(std::vector<std::string>& lines, const std::string& path);

  // One line by its index from 0. On failure line stays as it was.
  static bool GetLineFromFile(std::string& line, const std::string& path, uint8_t index);
};
