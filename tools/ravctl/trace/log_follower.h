#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace ravctl {

// Reads what an application adds to its log file, over its wraps. The file is small and says itself where its newest
// entry is, so each look reads all of it and hands over what stands behind the entry that was read last.
class LogFollower {
 public:
  using Visit = std::function<void(std::string_view whole)>;

  explicit LogFollower(std::string path) : m_Path(std::move(path)) {}

  // Hands over what is new; at the first call everything. A file that is not there has nothing new. Throws CommandError
  // when it may not be read.
  void Read(const Visit& visit);

  // How often the entry that was read last was overwritten, so that others may have been lost.
  unsigned int Losses() const { return m_Losses; }

 private:
  std::string m_Path;
  std::string m_Last;       // the entry that was read last
  size_t m_LastOffset = 0;  // where it stands
  unsigned int m_Losses = 0;
};

}  // namespace ravctl
