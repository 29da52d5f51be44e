// trace follow: the newest entries of a trace, and what is added to it.

#include <deque>
#include <optional>

#include "ravctl/answer/json.h"
#include "ravctl/commands/trace/group.h"
#include "ravctl/line/command.h"
#include "ravctl/trace/entry_writer.h"
#include "ravctl/trace/file_watch.h"
#include "ravctl/trace/log_follower.h"
#include "ravctl/trace/ring_follower.h"
#include "ravctl/trace/trace_filter.h"

namespace ravctl {

namespace {

constexpr int kBusyMs = 10;      // an entry is being written
constexpr int kShortestMs = 20;  // after news
constexpr int kLongestMs = 500;  // when all is quiet: a write through a mapping wakes nobody
constexpr int kBusyTries = 50;   // then the writer has died within an entry

struct FollowOptions {
  TraceSource source;
  TraceFilter filter;
  size_t last = 10;
  pid_t pid = 0;
};

// The entries that pass the filter: the newest of those that are there already, then each.
class Sink {
 public:
  Sink(const FollowOptions& options, Output& out)
      : m_Filter(options.filter), m_Last(options.last), m_Out(out), m_Writer(out, {"trace-entry"}, true) {
    m_Filter.Prepare(CompleteTime("0s", ""));
    m_Writer.Begin();
  }

  void Take(std::string_view whole) {
    if (!m_Filter.IsEmpty() && !m_Filter.Matches(ParseEntry(whole))) return;
    if (m_IsLive) {
      m_Writer.Write(whole);
    } else if (m_Last > 0) {
      if (m_Held.size() == m_Last) m_Held.pop_front();
      m_Held.emplace_back(whole);
    }
  }

  // From here on every entry is written as it comes.
  void GoLive() {
    m_IsLive = true;
    for (const std::string& whole : m_Held)
      m_Writer.Write(whole);
    m_Held.clear();
    m_Out.Flush();
  }

  void Flush() { m_Out.Flush(); }
  bool IsClosed() const { return m_Out.IsClosed(); }
  void WarnAboutLoss(const std::string& path) {
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

// The ring buffers of an application one after the other: the start-up one while it starts, the run-time one
// afterwards, and so again after each start.
class RingChain {
 public:
  RingChain(std::string start, std::string run, Sink& sink)
      : m_Start(std::move(start)), m_Run(std::move(run)), m_Sink(sink) {}

  // What is there already.
  void Begin() {
    const bool hasRun = !m_Run.Path().empty() && m_Run.Open();
    const bool hasStart = !m_Start.Path().empty() && m_Start.Open();
    if (hasStart && (!hasRun || m_Start.BeginTime() >= m_Run.BeginTime())) {
      if (hasRun) ReadAll(m_Run);
      m_Current = &m_Start;
    } else if (hasRun) {
      m_Current = &m_Run;
    }
    if (m_Current != nullptr) ReadAll(*m_Current);
    if (m_Current != nullptr) m_Since = m_Current->BeginTime();
  }

  // What is new. mayHaveChanged: files may have come or gone.
  RingFollower::State Read(bool mayHaveChanged) {
    RingFollower::State state = m_Current != nullptr ? ReadCurrent() : RingFollower::State::kQuiet;
    if (mayHaveChanged || state == RingFollower::State::kNotReady || m_IsSwitching) {
      if (Switch()) state = ReadCurrent();
    }
    return state;
  }

 private:
  RingFollower::Visit Visit() {
    return [this](std::string_view whole) { m_Sink.Take(whole); };
  }

  void ReadAll(RingFollower& ring) {
    for (int tries = 0; tries < kBusyTries && ring.ReadAll(Visit()) == RingFollower::State::kNotReady; ++tries)
      FileWatch("", 0).Wait(kBusyMs);
  }

  RingFollower::State ReadCurrent() {
    const unsigned int losses = m_Current->Losses();
    const RingFollower::State state = m_Current->Read(Visit());
    if (m_Current->Losses() != losses) m_Sink.WarnAboutLoss(m_Current->Path());
    if (!m_Current->BeginTime().empty()) m_Since = m_Current->BeginTime();
    return state;
  }

  // Goes to the buffer that the application has turned to; what the old one still holds was read before.
  bool Switch() {
    RingFollower& other = m_Current == &m_Start ? m_Run : m_Start;
    m_IsSwitching = m_Current == &m_Start && !m_Start.IsCurrent();
    if (m_Current == nullptr) return TurnTo(m_Start) || TurnTo(m_Run);
    // A start-up buffer that came anew, or the run-time buffer that follows the start-up one that is gone.
    if (m_Current == &m_Run || m_IsSwitching) {
      if (TurnTo(other)) return true;
    }
    return m_IsSwitching && TurnTo(m_Start);
  }

  bool TurnTo(RingFollower& ring) {
    if (ring.Path().empty() || !ring.Open() || ring.BeginTime().empty()) return false;
    const bool isSame = &ring == m_Current;
    if (isSame ? ring.BeginTime() <= m_Since : ring.BeginTime() < m_Since) return false;
    m_Current = &ring;
    m_IsSwitching = false;
    m_Since = ring.BeginTime();
    return true;
  }

  RingFollower m_Start;
  RingFollower m_Run;
  Sink& m_Sink;
  RingFollower* m_Current = nullptr;
  std::string m_Since;         // when the current one was begun
  bool m_IsSwitching = false;  // the start-up buffer is gone, the run-time one is not ready yet
};

void FollowRings(RingChain& chain, FileWatch& watch, Sink& sink) {
  int waitMs = kShortestMs;
  int busyTries = 0;
  bool mayHaveChanged = true;
  while (!sink.IsClosed()) {
    const bool isOver = watch.IsProcessGone();  // what is read from here on are its last words
    const RingFollower::State state = chain.Read(mayHaveChanged);
    sink.Flush();
    const bool isBusy = state == RingFollower::State::kNotReady && ++busyTries < kBusyTries;
    if (isOver && !isBusy && state != RingFollower::State::kNews) return;
    if (state != RingFollower::State::kNotReady) busyTries = 0;
    waitMs = state == RingFollower::State::kNews ? kShortestMs : std::min(waitMs * 2, kLongestMs);
    mayHaveChanged = watch.Wait(isOver || isBusy ? kBusyMs : waitMs);
  }
}

void FollowLog(const std::string& path, FileWatch& watch, Sink& sink) {
  LogFollower log(path);
  const auto visit = [&sink](std::string_view whole) { sink.Take(whole); };
  log.Read(visit);
  sink.GoLive();
  while (!sink.IsClosed()) {
    const bool isOver = watch.IsProcessGone();
    const unsigned int losses = log.Losses();
    log.Read(visit);
    if (log.Losses() != losses) sink.WarnAboutLoss(path);
    sink.Flush();
    if (isOver) return;
    watch.Wait(watch.HasWatch() ? -1 : kLongestMs);
  }
}

std::string DirectoryPart(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
}

ExitCode RunFollow(const FollowOptions& options, Output& out) {
  Sink sink(options, out);
  const TraceSource& source = options.source;
  const bool isPath = IsPath(source);
  const std::string directory = isPath ? DirectoryPart(source.what) : DirectoryOf(source);
  FileWatch watch(directory, options.pid);
  const TracePaths paths = PathsOf(directory, source.what);
  if (source.part == TracePart::kLog && !isPath) {
    FollowLog(paths.log, watch, sink);
    return ExitCode::kDone;
  }
  if (isPath) {
    const TraceFile file(source.what);
    if (file.Layout().kind == TraceKind::kLogFile) {
      FollowLog(source.what, watch, sink);
      return ExitCode::kDone;
    }
  }
  const bool wantsStart = !isPath && source.part != TracePart::kRun;
  const bool wantsRun = !isPath && source.part != TracePart::kStart;
  RingChain chain(wantsStart ? paths.start : "", isPath ? source.what : wantsRun ? paths.run : "", sink);
  chain.Begin();
  sink.GoLive();
  FollowRings(chain, watch, sink);
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
  AddSourceOptions(follow, options->source);
  options->filter.AddOptions(follow);
  follow.AddOption("-n,--last", &options->last, "N", "Begin with the newest N entries that are there (usually 10)",
                   NotNegative());
  follow.AddOption("--pid", &options->pid, "PID", "End when that process has ended, with its last words", Above(0));
}

}  // namespace ravctl
