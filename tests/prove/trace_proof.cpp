// The trace while its files are damaged, and texts from outside in it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <optional>
#include <regex>
#include <sstream>
#include <thread>

#include "daemon/command_line.h"
#include "daemon/run_level.h"
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

// Text from outside stays text. A newline in it, and any other control character, passes through: the format has no
// escapes, so that such a text can look like several entries.
TEST(Prove, TextSafety) {
  static constexpr const char* kNasty[] = {"%n%n%s%s",     "\033[2J\033]0;x\007", "two\nlines", "%*.*d%99999999d",
                                           "\xff\xfe\x80", "## TRACE-END ##\n",   "%1$n"};
  const TraceRoot root;
  root.ConfigureRing("1");
  root.Run([] {
    int texts = 0;
    ::setenv("QN_LOG_NOHDR_TOSDTERR", "0", 1);
    for (const std::string nasty : kNasty) {
      ::setenv("QN_NICKNAME", nasty.c_str(), 1);
      ::setenv("AgentShut", nasty.c_str(), 1);
      const std::string directory = "/" + nasty.substr(0, nasty.find_first_of("[\n"));  // what an ini value can hold
      ::mkdir(directory.c_str(), 0755);
      std::ofstream(std::string(TraceRoot::kConfig) + "ravd.ini")
          << "[ravd]\nFileDebugLevel=5\nRingBufferSizeFactor=1\nRingBufferSizeWeight=1\nRingBufferDirectory="
          << directory << "\n[EndOfFile]\n";
      std::string unknown = "-" + nasty;
      char* argv[] = {const_cast<char*>(nasty.c_str()), unknown.data()};
      Debug.SetMainParams(2, argv);
      ASSERT_TRUE(Debug.Init("ravd"));
      Debug.SetMainParams(2, argv);
      ParseCommandLine(2, argv);
      RememberRelease();
      DetermineRunLevel();
      Debug.PrintAlways(0, "outside: %s", nasty.c_str());
      const std::string end = nasty + (nasty.ends_with("\n") ? "" : "\n");
      const std::string both[] = {"argv[0] = \"" + nasty + "\"\n",
                                  "argv[1] = \"-" + nasty + "\"\n",
                                  "QN_NICKNAME=" + end,
                                  "AgentShut=" + end,
                                  "outside: " + end,
                                  "RingBufferDirectory        : " + directory + "\n",
                                  "Ring Buffer Directory      : " + directory + "\n",
                                  "LogFile Path               : " + directory + "/log.ravd\n"};
      for (const char* name : {"/log.ravd", "/log.ravd_i"}) {
        const std::string file = ReadWholeFile(directory + name);
        for (const std::string& text : both) {
          EXPECT_NE(file.find(text), std::string::npos) << name << ": " << text;
          ++texts;
        }
        const bool isTraced = file.find("we are runing on OS \"" + nasty + "\"\n") != std::string::npos;
        EXPECT_EQ(isTraced, std::string(name) == "/log.ravd_i");
      }
    }
    Figure("%d hostile texts from command line, environment, configuration and callers printed as text", texts);
  });
}
