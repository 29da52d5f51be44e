#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>
#include "ravctl/line/command.h"

#include "ravctl/trace/trace_entry.h"

namespace re2 {
class RE2;
}

namespace ravctl {

// Which entries are wanted. Every kind that is given must match; of several values of one kind one is enough, and no
// value of a negation may match.
class TraceFilter {
 public:
  // Adds the options of the filter to a command.
  void AddOptions(Command& command);

  // Makes the values ready. newestTime completes times without a date. Throws CommandError for a value that is none.
  void Prepare(std::string_view newestTime);

  bool IsEmpty() const { return m_IsEmpty; }
  bool Matches(const TraceEntry& entry) const;

 private:
  // From and to as beginnings of times: "2024-05-06 10" means the whole hour. Empty = open.
  struct TimeRange {
    std::string from;
    std::string to;
    bool Contains(std::string_view time) const;
  };

  std::string m_Since;
  std::string m_Until;
  std::vector<std::string> m_NotTimes;  // "FROM..TO"
  std::vector<std::string> m_Threads, m_NotThreads;
  std::vector<std::string> m_Tags, m_NotTags;
  std::vector<std::string> m_Sources, m_NotSources;  // shell patterns
  std::vector<std::string> m_Texts, m_NotTexts;      // regular expressions
  bool m_IsPlainText = false;                        // they are none
  bool m_IgnoresCase = false;

  using Expressions = std::vector<std::shared_ptr<const re2::RE2>>;
  Expressions Compile(const std::vector<std::string>& texts) const;

  Expressions m_Wanted, m_Unwanted;
  TimeRange m_Time;
  std::vector<TimeRange> m_NotTimeRanges;
  bool m_IsEmpty = true;
};

// A time as given by a user, completed to the beginning of a trace's time:
//   "2024-05-06 10:11" as it is, "10:11" of newestTime's day, "yesterday", "today 10:11", "5m", "2h", "3d" ago (the
//   clock; of a bundle from the time of its capture).
// A time that no calendar or clock has is none. Throws CommandError when it is none of these.
std::string CompleteTime(const std::string& given, std::string_view newestTime);

}  // namespace ravctl
