#include "ravctl/trace/trace_follower.h"

#include <algorithm>

#include "ravctl/trace/file_watch.h"
#include "ravctl/trace/log_follower.h"
#include "ravctl/trace/ring_follower.h"

namespace ravctl {

namespace {

constexpr int kBusyMs = 10;      // an entry is being written
constexpr int kShortestMs = 20;  // after news
constexpr int kLongestMs = 500;  // when all is quiet: a write through a mapping wakes nobody
constexpr int kBusyTries = 50;   // then the writer has died within an entry

// The ring buffers of an application one after the other: the start-up one while it starts, the run-time one
// afterwards, and so again after each start.
class RingChain {
 public:
  RingChain(std::string start, std::string run, EntrySink& sink)
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
  EntrySink& m_Sink;
  RingFollower* m_Current = nullptr;
  std::string m_Since;         // when the current one was begun
  bool m_IsSwitching = false;  // the start-up buffer is gone, the run-time one is not ready yet
};

void FollowRings(const FollowedTrace& trace, FileWatch& watch, EntrySink& sink) {
  RingChain chain(trace.start, trace.run, sink);
  chain.Begin();
  sink.GoLive();
  int waitMs = kShortestMs;
  int busyTries = 0;
  bool mayHaveChanged = true;
  while (!sink.IsClosed() && !watch.IsReaderGone()) {
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

void FollowLog(const std::string& path, FileWatch& watch, EntrySink& sink) {
  LogFollower log(path);
  const auto visit = [&sink](std::string_view whole) { sink.Take(whole); };
  log.Read(visit);
  sink.GoLive();
  while (!sink.IsClosed() && !watch.IsReaderGone()) {
    const bool isOver = watch.IsProcessGone();
    const unsigned int losses = log.Losses();
    log.Read(visit);
    if (log.Losses() != losses) sink.WarnAboutLoss(path);
    sink.Flush();
    if (isOver) return;
    watch.Wait(watch.HasWatch() ? -1 : kLongestMs);
  }
}

}  // namespace

void FollowTrace(const FollowedTrace& trace, EntrySink& sink) {
  FileWatch watch(trace.directory, trace.pid);
  if (trace.log.empty()) {
    FollowRings(trace, watch, sink);
  } else {
    FollowLog(trace.log, watch, sink);
  }
}

}  // namespace ravctl
