#include "ravctl/trace/trace_filter.h"

#include <re2/re2.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <ctime>

#include "ravctl/base/error.h"
#include "ravctl/base/times.h"
#include "ravctl/line/record_filter.h"
#include "ravctl/tree/enter.h"

namespace ravctl {

namespace {

constexpr std::string_view kTimeForm = "dddd-dd-dd dd:dd:dd.ddd";
constexpr size_t kDateLength = 11;  // with the blank behind it

constexpr std::array<long, 4> kUnitSeconds = {1, 60, 3600, 86400};  // s, m, h, d

// Whether the text is a beginning of the form, with digits where it says d, whose last number is complete but for
// milliseconds.
bool HasForm(std::string_view text, std::string_view form) {
  if (text.size() > form.size()) return false;
  const bool isWhole = text.size() == form.size() || form[text.size()] != 'd' || text.find('.') != std::string::npos;
  return isWhole && std::equal(text.begin(), text.end(), form.begin(), [](char given, char wanted) {
           return wanted == 'd' ? given >= '0' && given <= '9' : given == wanted;
         });
}

// Whether a beginning of a time, in its form, is one that a calendar and a clock have.
bool IsTime(const std::string& text) {
  std::array<int, 6> fields = {1970, 1, 1, 0, 0, 0};
  std::sscanf(text.c_str(), "%4d-%2d-%2d %2d:%2d:%2d", &fields[0], &fields[1], &fields[2], &fields[3], &fields[4],
              &fields[5]);
  const auto [year, month, day, hour, minute, second] = fields;
  const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned int>(month)),
                                         std::chrono::day(static_cast<unsigned int>(day))};
  return date.ok() && hour < 24 && minute < 60 && second < 61;
}

// "yesterday 10:11" => the day in its place, as the local calendar has it.
std::string WithDate(const std::string& given) {
  constexpr std::array<std::pair<std::string_view, int>, 2> kDays = {{{"today", 0}, {"yesterday", 1}}};
  for (const auto& [word, daysAgo] : kDays) {
    if (!given.starts_with(word)) continue;
    const time_t now = PresentTime();
    tm local{};
    localtime_r(&now, &local);
    local.tm_mday -= daysAgo;
    local.tm_hour = 12;  // on every day, whatever the clocks are turned to
    return LocalTimeText(std::mktime(&local), "%F") + given.substr(word.size());
  }
  return given;
}

bool IsThread(std::string_view thread, const std::string& wanted) {
  return thread.size() == wanted.size() && ::strncasecmp(thread.data(), wanted.data(), thread.size()) == 0;
}

// "1a2b" => "00001a2b", so that a thread may be given without its zeros.
void CompleteThreads(std::vector<std::string>& threads) {
  for (std::string& thread : threads) {
    const std::string given = thread;
    if (thread.starts_with("0x")) thread.erase(0, 2);
    const bool isHex = !thread.empty() && thread.size() <= 8 &&
                       std::ranges::all_of(thread, [](unsigned char digit) { return std::isxdigit(digit) != 0; });
    if (!isHex) {
      throw CommandError(ExitCode::kUsage, "not a thread", given, "give its up to eight hexadecimal digits: 1A2B3C40");
    }
    thread.insert(0, 8 - thread.size(), '0');
  }
}

}  // namespace

std::string CompleteTime(const std::string& given, std::string_view newestTime) {
  std::string time = WithDate(given);
  if (time.size() > 10 && time[10] == 'T') time[10] = ' ';
  if (time.size() >= 2 && time.find(':') != std::string::npos && HasForm(time, kTimeForm.substr(kDateLength))) {
    time.insert(0, newestTime.substr(0, kDateLength));
  }
  if (time.size() >= 4 && HasForm(time, kTimeForm) && IsTime(time)) return time;
  constexpr std::string_view kUnits = "smhd";
  const size_t unit = time.empty() ? std::string_view::npos : kUnits.find(time.back());
  const bool isNumber = time.size() > 1 && time.size() < 8 && std::all_of(time.begin(), time.end() - 1, [](char digit) {
                          return digit >= '0' && digit <= '9';
                        });
  if (unit != std::string_view::npos && isNumber) {
    return LocalTimeText(PresentTime() - std::stol(time) * kUnitSeconds[unit]);
  }
  throw CommandError(ExitCode::kUsage, "not a time", given,
                     "give 2024-05-06 10:11:12, 10:11, yesterday, or 5m for 5 minutes ago");
}

bool TraceFilter::TimeRange::Contains(std::string_view time) const {
  return time >= from && (to.empty() || time.substr(0, to.size()) <= to);
}

void TraceFilter::AddOptions(Command& command) {
  const auto list = [&command](const char* name, std::vector<std::string>& values, const char* type, const char* text) {
    command.AddOption(name, &values, type, text);
  };
  command.AddOption("--since", &m_Since, "TIME",
                    "From that time on: 2024-05-06 10:11, 10:11, yesterday, or 5m for 5 minutes ago");
  command.AddOption("--until", &m_Until, "TIME", "Up to that time, all of it included");
  list("--not-time", m_NotTimes, "FROM..TO", "Not in that time; may be repeated, as all that follow");
  list("-t,--thread", m_Threads, "HEX", "Of that thread");
  list("--not-thread", m_NotThreads, "HEX", "Not of that thread");
  list("--tag", m_Tags, "TAG", "Of that application or module");
  list("--not-tag", m_NotTags, "TAG", "Not of that application or module");
  list("--source", m_Sources, "PATTERN",
       "Of that module or routine, which the text names at its front: Heartbeat, CFile*");
  list("--not-source", m_NotSources, "PATTERN", "Not of that module or routine");
  list("-g,--text", m_Texts, "REGEX", "With a text that the regular expression matches: 'ERROR|FAILED'");
  list("--not-text", m_NotTexts, "REGEX", "Without such a text");
  command.AddFlag("-F,--fixed-text", &m_IsPlainText, "Texts are looked for as they stand, not as regular expressions");
  command.AddFlag("-i,--ignore-case", &m_IgnoresCase, "Upper and lower case are the same in texts");
}

TraceFilter::Expressions TraceFilter::Compile(const std::vector<std::string>& texts) const {
  re2::RE2::Options options;
  options.set_case_sensitive(!m_IgnoresCase);
  options.set_encoding(re2::RE2::Options::EncodingLatin1);  // a trace may hold any bytes
  options.set_log_errors(false);
  Expressions expressions;
  for (const std::string& text : texts) {
    expressions.push_back(std::make_shared<re2::RE2>(m_IsPlainText ? re2::RE2::QuoteMeta(text) : text, options));
    if (!expressions.back()->ok()) {
      throw CommandError(ExitCode::kUsage, "not a regular expression", text + ": " + expressions.back()->error(),
                         "with -F a text is looked for as it stands");
    }
  }
  return expressions;
}

void TraceFilter::Prepare(std::string_view newestTime) {
  if (!m_Since.empty()) m_Time.from = CompleteTime(m_Since, newestTime);
  if (!m_Until.empty()) m_Time.to = CompleteTime(m_Until, newestTime);
  m_NotTimeRanges.clear();
  for (const std::string& range : m_NotTimes) {
    const size_t dots = range.find("..");
    if (dots == std::string::npos) {
      throw CommandError(ExitCode::kUsage, "not a range of times", range, "give FROM..TO, for example 10:11..10:15");
    }
    const std::string from = range.substr(0, dots);
    const std::string to = range.substr(dots + 2);
    m_NotTimeRanges.push_back(
        {from.empty() ? "" : CompleteTime(from, newestTime), to.empty() ? "" : CompleteTime(to, newestTime)});
  }
  CompleteThreads(m_Threads);
  CompleteThreads(m_NotThreads);
  m_Wanted = Compile(m_Texts);
  m_Unwanted = Compile(m_NotTexts);
  m_IsEmpty = m_Since.empty() && m_Until.empty() && m_NotTimes.empty() && m_Threads.empty() && m_NotThreads.empty() &&
              m_Tags.empty() && m_NotTags.empty() && m_Sources.empty() && m_NotSources.empty() && m_Texts.empty() &&
              m_NotTexts.empty();
}

bool TraceFilter::Matches(const TraceEntry& entry) const {
  const auto isThread = [&entry](const std::string& wanted) { return IsThread(entry.thread, wanted); };
  const auto isTag = [&entry](const std::string& wanted) { return entry.tag == wanted; };
  const auto isSource = [&entry](const std::string& wanted) { return MatchesWhole(entry.source, wanted); };
  const auto hasText = [&entry](const auto& expression) { return re2::RE2::PartialMatch(entry.text, *expression); };
  const auto isInRange = [&entry](const TimeRange& range) { return range.Contains(entry.time); };
  return m_Time.Contains(entry.time) && std::ranges::none_of(m_NotTimeRanges, isInRange) &&
         (m_Threads.empty() || std::ranges::any_of(m_Threads, isThread)) &&
         std::ranges::none_of(m_NotThreads, isThread) && (m_Tags.empty() || std::ranges::any_of(m_Tags, isTag)) &&
         std::ranges::none_of(m_NotTags, isTag) && (m_Sources.empty() || std::ranges::any_of(m_Sources, isSource)) &&
         std::ranges::none_of(m_NotSources, isSource) && (m_Wanted.empty() || std::ranges::any_of(m_Wanted, hasText)) &&
         std::ranges::none_of(m_Unwanted, hasText);
}

}  // namespace ravctl
