// trace show: the entries of a trace in the order in which they were written.

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
  size_t last = 0;  // 0 = all
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

// The newest entries that were handed to it, at most as many as wanted.
class LastEntries {
 public:
  explicit LastEntries(size_t wanted) : m_Wanted(wanted) {}

  void Add(std::string_view whole) {
    if (m_Entries.size() < m_Wanted) {
      m_Entries.push_back(whole);
    } else {
      m_Entries[m_Next] = whole;
      m_Next = (m_Next + 1) % m_Wanted;
    }
  }

  void WriteTo(EntryWriter& writer) const {
    for (size_t index = 0; index < m_Entries.size(); ++index)
      writer.Write(m_Entries[(m_Next + index) % m_Entries.size()]);
  }

 private:
  size_t m_Wanted;
  size_t m_Next = 0;  // the oldest one, once there are as many as wanted
  std::vector<std::string_view> m_Entries;
};

ExitCode RunShow(const ShowOptions& options, Output& out) {
  EntryWriter writer(out, {"trace-show"}, false);
  const std::vector<TraceFile> files = ReadTraceFiles(options.source);
  TraceFilter filter = options.filter;
  filter.Prepare(NewestTime(files));
  LastEntries last(options.last);
  size_t count = 0;
  writer.Begin();
  bool isDamaged = false;
  for (const TraceFile& file : files) {
    isDamaged = WarnAboutDamage(file, out) || isDamaged;
    for (const std::string_view part : file.Layout().parts) {
      ForEachEntry(part, [&](std::string_view whole) {
        if (!filter.IsEmpty() && !filter.Matches(ParseEntry(whole))) return true;
        ++count;
        if (options.last != 0) {
          last.Add(whole);
        } else {
          writer.Write(whole);
        }
        return !out.IsClosed();
      });
    }
  }
  if (options.last != 0) last.WriteTo(writer);
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
        {"ravctl trace show --since 5m -g ERROR -g FAILED", "what went wrong in the last five minutes"},
        {"ravctl trace show --not-tag ravd -o time,tag,text", "what the modules traced, in three columns"},
        {"ravctl trace show /var/log/pelrix/log.ravd_i.gz --json | jq '.data[].text'", "a start-up, for a script"},
        {"ravctl trace show -p log", "the log file, over its wraps"},
        {"ravctl trace show --run 1 -n 20", "the last words of the last run that crashed"}}},
      [options](Output& out) { return RunShow(*options, out); });
  AddSourceOptions(show, options->source);
  options->filter.AddOptions(show);
  show.AddOption("-n,--last", &options->last, "N", "The newest N of the entries that are wanted", Above(0));
}

}  // namespace ravctl
