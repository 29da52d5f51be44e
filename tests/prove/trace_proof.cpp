// The trace while its files are damaged.

#include <sys/mman.h>
#include <sys/syscall.h>

#include <optional>
#include <regex>

#include "platform/unique_fd.h"
#include "prove/prove.h"
#include "trace/trace_root.h"

namespace {

constexpr size_t kMiB = 1024 * 1024;

void BlockAllSignals() {
  sigset_t all;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

// Runs the damage while four threads write, two of which block all signals; true when tracing is still on afterwards.
bool SurvivesWhileFourWrite(const std::function<void()>& damage) {
  std::atomic<bool> stop = false;
  std::vector<std::thread> writers;
  for (int writer = 0; writer < 4; ++writer) {
    writers.emplace_back([&stop, writer] {
      if (writer % 2 == 0) BlockAllSignals();
      for (int entry = 0; !stop; ++entry) {
        TRACE(1, "writer %d entry %d %s", writer, entry, std::string(static_cast<size_t>(entry % 2000), 'x').c_str());
        if (entry % 64 == 0) Debug.PrintAlways(0, "writer %d", writer);
      }
    });
  }
  ::usleep(20000);
  damage();
  ::usleep(100000);
  stop = true;
  for (std::thread& writer : writers)
    writer.join();
  const bool isOn = Debug.m_TraceActive;
  Debug.PrintAlways(0, "still there");
  Debug.ForceMaxDebug(false);
  Debug.ForceMaxDebug(true);
  TRACE(1, "and again");
  return isOn;
}

struct Damage {
  const char* name;
  const char* path;  // null: the ring buffer
  void (*act)(const char* path);
  bool isShrunk;
  int cutLines = -1;  // in the log file when it is read afterwards
};

void Replace(const char* path) {
  ::unlink(path);
  std::fclose(std::fopen(path, "we"));
}

const Damage kDamages[] = {
    {"emptied", nullptr, [](const char* path) { EXPECT_EQ(::truncate(path, 0), 0); }, true},
    {"cut to a page", nullptr, [](const char* path) { EXPECT_EQ(::truncate(path, 4096), 0); }, true},
    {"cut in half", nullptr, [](const char* path) { EXPECT_EQ(::truncate(path, kMiB / 2 + 1), 0); }, true},
    {"removed", nullptr, [](const char* path) { EXPECT_EQ(::unlink(path), 0); }, false},
    {"replaced", nullptr, Replace, false},
    {"grown", nullptr, [](const char* path) { EXPECT_EQ(::truncate(path, 8 * kMiB), 0); }, false},
    {"log emptied", TraceRoot::kLog, [](const char* path) { EXPECT_EQ(::truncate(path, 0), 0); }, false, 0},
    {"log cut", TraceRoot::kLog, [](const char* path) { EXPECT_EQ(::truncate(path, 101), 0); }, false, 1},
    {"log removed", TraceRoot::kLog, [](const char* path) { EXPECT_EQ(::unlink(path), 0); }, false},
    {"log replaced", TraceRoot::kLog, Replace, false},
};

// Lets a log file be cut between two entries.
struct TraceLock : CDebug {
  static CCriticalSection& Of(CDebug& debug) { return debug.*(&TraceLock::m_CritSec); }
};

// A log file that was cut goes on behind the cut: every line is an entry, but for the one that the cut met.
void ExpectWholeLines(const std::string& log, int cutLines) {
  static const std::regex entry(R"([-: .\d]{23} \[[\dA-F]{8}\] ravd          (writer \d|still there))");
  int others = 0;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);)
    others += std::regex_match(line, entry) ? 0 : 1;
  EXPECT_EQ(others, cutLines);
  EXPECT_TRUE(log.ends_with("still there\n"));
}

// While four write, the file is damaged in one way, in the start-up phase or behind it.
void TryDamage(const Damage& damage, bool isStartUp) {
  const TraceRoot root;
  root.ConfigureRing("1");
  root.Run([&damage, isStartUp] {
    if (damage.cutLines >= 0) ::setenv("QN_LOG_FILE_MAX_SIZE", "1000000000", 1);  // no wrap
    SCOPED_TRACE(testing::Message() << damage.name << (isStartUp ? " while starting" : ""));
    ASSERT_TRUE(Debug.Init("ravd"));
    if (!isStartUp) Debug.SetApplInitDone();
    TakeSyslogLines();
    const char* ring = isStartUp ? TraceRoot::kStartUpRing : TraceRoot::kRunTimeRing;
    const char* path = damage.path != nullptr ? damage.path : ring;
    const auto act = [&] {
      std::optional<CCriticalSectionLock> lock;
      if (damage.cutLines >= 0) lock.emplace(TraceLock::Of(Debug));
      damage.act(path);
    };
    EXPECT_EQ(SurvivesWhileFourWrite(act), !damage.isShrunk);
    EXPECT_EQ(TakeSyslogLines(), damage.isShrunk ? 1 : 0);
    if (damage.cutLines >= 0) ExpectWholeLines(ReadWholeFile(path), damage.cutLines);
    EXPECT_TRUE(Debug.Init("ravd")) << "a new start traces again";
    EXPECT_TRUE(Debug.m_TraceActive);
  });
}

// A thread that blocks the signal between two entries is safe again from the next second on.
void TryLateBlocker() {
  const TraceRoot root;
  root.ConfigureRing("1");
  root.Run([] {
    ASSERT_TRUE(Debug.Init("ravd"));
    std::thread([] {
      TRACE(1, "before");
      BlockAllSignals();
      ::usleep(1001000);
      TRACE(1, "in another second");
      EXPECT_EQ(::truncate(TraceRoot::kStartUpRing, 0), 0);
      TRACE(1, "gone");
    }).join();
    EXPECT_FALSE(Debug.m_TraceActive);
  });
}

std::atomic<int> strangeFaults = 0;

}  // namespace

// What follows a ring buffer in memory is not there, so that a store behind its end ends the process.
extern "C" void* mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset) noexcept {
  const auto map = [](void* at, size_t size, int access, int how, int file, off_t from) {
    return reinterpret_cast<void*>(::syscall(SYS_mmap, at, size, access, how, file, from));
  };
  if ((flags & MAP_SHARED) == 0 || fd < 0) return map(address, length, protection, flags, fd, offset);
  void* const place = map(nullptr, length + 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return map(place, length, protection, flags | MAP_FIXED, fd, offset);
}

TEST(Prove, TraceFilesDamaged) {
  int done = 0;
  for (int round = 0; round < Rounds(10, 1) && !HasFailure(); ++round) {
    for (const Damage& damage : kDamages) {
      for (const bool isStartUp : {false, true}) {
        TryDamage(damage, isStartUp);
        ++done;
      }
    }
  }
  TryLateBlocker();
  Figure(
      "%d damaged files under four writers, two with all signals blocked: all lived, a ring that shrank is one "
      "syslog line and tracing off, a log that was cut goes on with whole lines",
      done);
}

// Only the fault of a copy is caught: everything else ends the process or reaches the handler that was there before.
TEST(Prove, StrangeBusErrors) {
  const TraceRoot root;
  root.ConfigureRing("1");
  root.WriteFile("/other", "");
  const auto fault = [] {
    const UniqueFd file(::open("/other", O_RDWR | O_CLOEXEC));
    auto* mapping = static_cast<volatile char*>(::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, file.Get(), 0));
    return mapping[0];
  };
  root.Run([&fault] {
    for (const bool isSent : {false, true}) {
      const pid_t child = ::fork();
      if (child == 0) {
        Debug.Init("ravd");
        if (isSent) ::raise(SIGBUS);
        if (!isSent) fault();
        ::_exit(0);
      }
      const int status = WaitFor(child);
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGBUS) << status;
    }
    struct sigaction action {};
    action.sa_handler = [](int) {
      ++strangeFaults;
      EXPECT_EQ(::truncate("/other", 4096), 0);
    };
    ::sigaction(SIGBUS, &action, nullptr);
    ASSERT_TRUE(Debug.Init("ravd"));
    EXPECT_EQ(fault(), 0);
    ::raise(SIGBUS);
    EXPECT_EQ(strangeFaults, 2);
    Figure("3 other bus errors went where they had gone before");
  });
}
