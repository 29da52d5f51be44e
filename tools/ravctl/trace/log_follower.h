#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/unique_fd.h"

namespace ravctl {

// Reads what an application adds to its log file, over its wraps, and no byte twice: each look begins where the last
// one ended.
//
// Once the file is full the application goes on behind its start-up part, over the oldest entries, and writes there a
// line with the number of the cycle. A changed line is a wrap. Behind the newest entry stand those of the cycle before,
// told apart by their times, which go back. Where a whole cycle takes less than a millisecond, entries of the cycle
// before are handed over again.
class LogFollower {
 public:
  using Visit = std::function<void(std::string_view whole)>;

  explicit LogFollower(std::string path) : m_Path(std::move(path)) {}

  // Hands over what is new; at the first call everything. A file that is not there has nothing new. Throws CommandError
  // when it may not be read.
  void Read(const Visit& visit);

  // How often entries were overwritten before they could be read.
  unsigned int Losses() const { return m_Losses; }

 private:
  // The line that says where a cycle begins, and which.
  struct Wrap {
    off_t offset = 0;
    std::string line;
  };

  void ReadAll(const UniqueFd& file, const Visit& visit);
  void ReadOn(const UniqueFd& file, const Visit& visit);
  void HandOver(std::string_view entry, const Visit& visit);
  void GoOnBehind(std::string_view bytes, size_t end, off_t offset);
  bool IsIntact(const UniqueFd& file) const;
  std::optional<Wrap> FindWrap(const UniqueFd& file) const;
  static Wrap WrapAt(const UniqueFd& file, off_t offset);

  std::string m_Path;
  std::string m_Start;     // the first bytes of the file, others after a restart of the application
  off_t m_Position = 0;    // behind the entry that was read last
  std::string m_Before;    // the bytes before that
  std::string m_LastTime;  // of that entry
  std::optional<Wrap> m_Wrap;
  unsigned int m_Losses = 0;
};

}  // namespace ravctl
