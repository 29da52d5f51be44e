// trace follow: the newest entries of a trace, and what is added to it.

#include <deque>
#include <optional>

#include "ravctl/answer/json.h"
#include "ravctl/base/files.h"
#include "ravctl/commands/trace/group.h"
#include "ravctl/line/command.h"
#include "ravctl/trace/entry_writer.h"
#include "ravctl/trace/trace_filter.h"
#include "ravctl/trace/trace_follower.h"

namespace ravctl {

namespace {

struct FollowOptions {
  TraceSource source;
  TraceFilter filter;
  size_t last = 10;
  pid_t pid = 0;
};

// The entries that pass the filter: the newest of those that are there already, then each.
class Sink : public EntrySink {
 public:
  Sink(const FollowOptions& options, Output& out)
      : m_Filter(options.filter), m_Last(options.last), m_Out(out), m_Writer(out, kTraceEntry, true) {
    m_Filter.Prepare(CompleteTime("0s", ""));
    m_Writer.Begin();
  }

  void Take(std::string_view whole) override {
    if (!m_Filter.IsEmpty() && !m_Filter.Matches(ParseEntry(whole))) return;
    if (m_IsLive) {
      m_Writer.Write(whole);
    } else if (m_Last > 0) {
      if (m_Held.size() == m_Last) m_Held.pop_front();
      m_Held.emplace_back(whole);
    }
  }

  // From here on every entry is written as it comes.
  void GoLive() override {
    m_IsLive = true;
    for (const std::string& whole : m_Held)
      m_Writer.Write(whole);
    m_Held.clear();
    m_Out.Flush();
  }

  void Flush() override { m_Out.Flush(); }
  bool IsClosed() const override { return m_Out.IsClosed(); }
  void WarnAboutLoss(const std::string& path) override {
    m_Out.Warn("entries were overwritten before they could be read", path, "use a larger ring buffer");
  }

 private:
  TraceFilter m_Filter;
  size_t m_Last;
  Output& m_Out;
  EntryWriter m_Writer;
  std::deque<std::string> m_Held;
  bool m_IsLive = false;
};

ExitCode RunFollow(const FollowOptions& options, Output& out) {
  Sink sink(options, out);
  const TraceSource& source = options.source;
  const bool isPath = IsPath(source);
  const std::string directory = isPath ? DirectoryPart(source.what) : DirectoryOf(source);
  FollowedTrace followed;
  followed.directory = directory;
  followed.pid = options.pid;
  if (isPath) {
    (TraceFile(source.what).Layout().kind == TraceKind::kLogFile ? followed.log : followed.run) = source.what;
  } else {
    const TracePaths paths = PathsOf(directory, source.what);
    if (source.part == TracePart::kLog) followed.log = paths.log;
    if (source.part != TracePart::kRun) followed.start = paths.start;
    if (source.part != TracePart::kStart) followed.run = paths.run;
  }
  FollowTrace(followed, sink);
  return ExitCode::kDone;
}

}  // namespace

void AddTraceFollow(Command& trace) {
  auto options = std::make_shared<FollowOptions>();
  Command& follow =
      trace.Add({"follow",
                 "Show the newest entries of a trace and go on with what is added, over wraps and restarts",
                 {{"ravctl trace follow", "the daemon's ring buffers, until Ctrl-C"},
                  {"ravctl trace follow -n 0 -g ERROR --json", "errors from now on, one JSON object a line"},
                  {"ravctl trace follow --pid 1234", "until process 1234 has ended"}},
                 Effect::kChanges},
                [options](Output& out) { return RunFollow(*options, out); });
  follow.Answers({&kTraceEntry});
  AddPresentSource(follow, options->source);
  options->filter.AddOptions(follow);
  follow.AddOption("-n,--last", &options->last, "N", "Begin with the newest N entries that are there (usually 10)",
                   NotNegative());
  follow.AddOption("--pid", &options->pid, "PID", "End when that process has ended, with its last words", Above(0));
}

}  // namespace ravctl
