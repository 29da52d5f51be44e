#include "ravctl/trace/log_follower.h"

#include <unistd.h>

#include <vector>

#include "ravctl/base/error.h"
#include "ravctl/trace/trace_entry.h"
#include "ravctl/trace/trace_file.h"

namespace ravctl {

void LogFollower::Read(const Visit& visit) {
  if (::access(m_Path.c_str(), F_OK) != 0) return;
  const TraceFile file(m_Path);
  const char* const start = file.Content().data();
  std::vector<std::string_view> fresh;
  bool isFound = m_Last.empty();
  for (const std::string_view part : file.Layout().parts) {
    ForEachEntry(part, [&](std::string_view whole) {
      if (!isFound) {
        isFound = static_cast<size_t>(whole.data() - start) == m_LastOffset && whole == m_Last;
      } else {
        fresh.push_back(whole);
      }
      return true;
    });
  }
  if (!isFound) {
    // A new start, or a whole cycle since the last look: what is newer by its time.
    const std::string lastTime = m_Last.substr(0, kTimeLength);
    ++m_Losses;
    for (const std::string_view part : file.Layout().parts) {
      ForEachEntry(part, [&](std::string_view whole) {
        if (whole.substr(0, kTimeLength) > lastTime) fresh.push_back(whole);
        return true;
      });
    }
  }
  for (const std::string_view whole : fresh)
    visit(whole);
  if (fresh.empty()) return;
  m_Last = fresh.back();
  m_LastOffset = static_cast<size_t>(fresh.back().data() - start);
}

}  // namespace ravctl
