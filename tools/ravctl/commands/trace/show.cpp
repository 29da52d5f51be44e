// trace show: the entries of a trace in the order in which they were written.

#include <algorithm>

#include "ravctl/answer/json.h"
#include "ravctl/commands/trace/group.h"
#include "ravctl/line/command.h"
#include "ravctl/trace/entry_writer.h"
#include "ravctl/trace/trace_filter.h"

namespace ravctl {

namespace {

struct ShowOptions {
  TraceSource source;
  TraceFilter filter;
  size_t last = 0;     // 0 = all
  size_t context = 0;  // entries around each
};

std::string_view NewestTime(const std::vector<TraceFile>& files) {
  std::string_view time;
  for (const TraceFile& file : files) {
    for (const std::string_view part : file.Layout().parts) {
      ForEachEntry(part, [&time](std::string_view whole) {
        time = whole.substr(0, kTimeLength);
        return true;
      });
    }
  }
  return time;
}

// The newest of the entries that are wanted, at most so many of them (0 = all), each with those around it.
void WriteChosen(const std::vector<std::string_view>& entries, const std::vector<size_t>& wanted,
                 const ShowOptions& options, EntryWriter& writer) {
  const size_t count = options.last == 0 ? wanted.size() : std::min(options.last, wanted.size());
  size_t written = 0;  // of all entries
  for (size_t index = wanted.size() - count; index < wanted.size(); ++index) {
    const size_t begin = std::max(written, wanted[index] - std::min(wanted[index], options.context));
    const size_t end = std::min(wanted[index] + options.context + 1, entries.size());
    if (options.context > 0 && written > 0 && begin > written) writer.Gap();
    for (size_t each = begin; each < end; ++each)
      writer.Write(entries[each]);
    written = std::max(written, end);
  }
}

ExitCode RunShow(const ShowOptions& options, Output& out) {
  EntryWriter writer(out, kTraceShow, false);
  const std::vector<TraceFile> files = ReadTraceFiles(options.source);
  TraceFilter filter = options.filter;
  filter.Prepare(NewestTime(files));
  const bool isChoosing = options.last != 0 || options.context != 0;
  std::vector<std::string_view> entries;
  std::vector<size_t> wanted;
  size_t count = 0;
  writer.Begin();
  bool isDamaged = false;
  for (const TraceFile& file : files) {
    isDamaged = WarnAboutDamage(file, out) || isDamaged;
    for (const std::string_view part : file.Layout().parts) {
      ForEachEntry(part, [&](std::string_view whole) {
        const bool isWanted = filter.IsEmpty() || filter.Matches(ParseEntry(whole));
        if (isWanted && isChoosing) wanted.push_back(entries.size());
        if (isWanted && !isChoosing) writer.Write(whole);
        if (isChoosing && (isWanted || options.context > 0)) entries.push_back(whole);
        count += isWanted ? 1 : 0;
        return !out.IsClosed();
      });
    }
  }
  WriteChosen(entries, wanted, options, writer);
  writer.End();
  if (isDamaged) return ExitCode::kInputDamaged;
  return count > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddTraceShow(Command& trace) {
  auto options = std::make_shared<ShowOptions>();
  Command& show = trace.Add(
      {"show",
       "Show the entries of a trace in the order in which they were written",
       {{"ravctl trace show -n 20", "the newest 20 entries of the daemon"},
        {"ravctl trace show --since 5m -g 'ERROR|FAILED' -C 3",
         "what went wrong in the last five minutes, and around it"},
        {"ravctl trace show --not-source 'RAVD-MAIN*' -o time,source,message",
         "what the modules traced, in three columns"},
        {"ravctl trace show /var/log/pelrix/log.ravd_i.gz --json | jq '.data[].text'", "a start-up, for a script"},
        {"ravctl trace show -p log", "the log file, over its wraps"},
        {"ravctl trace show --previous -n 20", "the last words of the last run that crashed"}}},
      [options](Output& out) { return RunShow(*options, out); });
  show.Answers({&kTraceShow});
  AddSourceOptions(show, options->source);
  options->filter.AddOptions(show);
  show.AddOption("-n,--last", &options->last, "N", "The newest N of the entries that are wanted", Above(0));
  show.AddOption("-C,--context", &options->context, "N", "With N entries before and behind each, -- between the groups",
                 NotNegative());
}

}  // namespace ravctl
