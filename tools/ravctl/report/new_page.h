#pragma once

#include <string>

#include "platform/unique_fd.h"

namespace ravctl {

// A new file that its owner alone can read, for a report shows what root alone may know. It goes with the object unless
// it was finished. Throws CommandError: when the file exists, which is left alone, or cannot be made.
class NewPage {
 public:
  explicit NewPage(const std::string& path);
  ~NewPage();
  NewPage(const NewPage&) = delete;
  NewPage& operator=(const NewPage&) = delete;

  int Get() const { return m_File.Get(); }
  // It is whole, and on the disk then.
  void Finish();

 private:
  std::string m_Path;
  UniqueFd m_File;
  bool m_IsWhole = false;
};

}  // namespace ravctl
