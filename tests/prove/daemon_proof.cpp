// The built daemon: starts, stops, signals, kills, contenders and bad module switches.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <random>

#include "daemon/file_lock.h"
#include "prove/prove.h"
#include "support/fixture_root.h"

namespace {

constexpr const char* kLog = "/var/log/pelrix/log.ravd";
constexpr const char* kPidFile = "/var/run/ravd.pid";
constexpr const char* kLockFile = "/var/lock/ravd.lock";

class DaemonRoot : public FixtureRoot {
 public:
  explicit DaemonRoot(const char* library = BAD_SWITCH) {
    for (const char* directory : {"/var/log/pelrix", "/var/run", "/var/lock", "/etc/pelrix", "/lib-switch", "/dev"})
      MakeDirectory(directory);
    WriteFile("/etc/pelrix/RunLevel", "3");
    std::filesystem::copy(RAVD_BINARY, HostPath("/ravd"));
    if (library != nullptr) std::filesystem::copy(library, HostPath("/lib-switch/libswitch.so"));
  }
  void Run(const std::function<void()>& body) const {
    FixtureRoot::Run(
        [&body] {
          ::setenv("LD_LIBRARY_PATH", "/lib-switch", 1);
          ::setenv("QN_NICKNAME", "SLES12", 1);
          body();
        },
        kUsr | kProc);
  }
};

std::string Log() {
  return ::access(kLog, R_OK) == 0 ? ReadWholeFile(kLog) : "";
}

int CountIn(const std::string& text, const std::string& part) {
  int count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
    ++count;
  return count;
}

pid_t StartDaemon() {
  ::unlink(kLog);
  return Start({"/ravd", "-n"});
}

bool WaitReady() {
  return WaitUntil([] { return Log().find("Waiting for signals...") != std::string::npos; });
}

void ExpectNothingLeft() {
  for (const char* path : {kPidFile, kLockFile, "/etc/pelrix/registry.new"})
    EXPECT_NE(::access(path, F_OK), 0) << path;
}

void StartAndStop() {
  const pid_t daemon = StartDaemon();
  ASSERT_TRUE(WaitReady()) << Log();
  ::kill(daemon, SIGTERM);
  ASSERT_EQ(WaitFor(daemon), 0) << Log();
  ExpectNothingLeft();
}

int RawStatus(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

size_t OpenDescriptors(pid_t process) {
  const std::filesystem::directory_iterator list("/proc/" + std::to_string(process) + "/fd");
  return static_cast<size_t>(std::distance(begin(list), end(list)));
}

long StatusValue(pid_t process, const std::string& key) {
  const std::string text = ReadWholeFile("/proc/" + std::to_string(process) + "/status");
  return std::atol(text.c_str() + text.find(key) + key.size());
}

// Shared between the contenders for the lock.
struct Arena {
  std::atomic<int> holders;
  std::atomic<int> overlaps;
  std::atomic<long> held;
  std::atomic<bool> isOver;
};

[[noreturn]] void Contend(Arena& arena, unsigned int seed) {
  std::mt19937 random(seed);
  while (!arena.isOver) {
    CFileLock lock;
    if (!lock.Lock("/var/lock/ravd", "ravd", 0)) continue;
    if (arena.holders.fetch_add(1) != 0) ++arena.overlaps;
    ++arena.held;
    if (random() % 4 == 0) ::usleep(static_cast<useconds_t>(random() % 300));
    arena.holders.fetch_sub(1);
  }
  ::_exit(0);
}

struct SwitchRow {
  const char* library;
  const char* behaviour;
  int status;  // of the daemon that is told to stop: exit status, or the signal that ends it
  bool isSignal;
  bool getsReady;
};
constexpr SwitchRow kSwitches[] = {
    {nullptr, "", 1, false, false},
    {BARE_SWITCH, "", 1, false, false},
    {BAD_SWITCH, "refuse", 1, false, false},
    {BAD_SWITCH, "null", 1, false, false},
    {BAD_SWITCH, "no modules", 0, false, true},
    {BAD_SWITCH, "load", 0, false, true},
    {BAD_SWITCH, "unload", 0, false, true},
    {BAD_SWITCH, "late", 0, false, true},
    {BAD_SWITCH, "thread", 0, false, true},
    {BAD_SWITCH, "descriptors", 0, false, true},
    // What the library throws elsewhere is not caught.
    {BAD_SWITCH, "query throws", SIGABRT, true, false},
    {BAD_SWITCH, "start", SIGABRT, true, false},
    {BAD_SWITCH, "stop", SIGABRT, true, true},
    {BAD_SWITCH, "notify", SIGABRT, true, true},
};

void TrySwitch(const SwitchRow& row) {
  const DaemonRoot root(row.library);
  root.Run([&row] {
    ::setenv("BAD_SWITCH", row.behaviour, 1);
    const pid_t daemon = StartDaemon();
    if (row.getsReady) {
      ASSERT_TRUE(WaitReady()) << Log();
      ::kill(daemon, SIGTERM);
    }
    const int status = WaitFor(daemon, 10);
    EXPECT_EQ(WIFSIGNALED(status), row.isSignal);
    EXPECT_EQ(row.isSignal ? WTERMSIG(status) : WEXITSTATUS(status), row.status) << Log();
    const bool isFatal = Log().find("FATAL ERROR! Tavrik SWITCH could not be loaded!") != std::string::npos;
    EXPECT_EQ(isFatal, !row.getsReady && !row.isSignal);
    if (!row.isSignal) ExpectNothingLeft();
  });
}

}  // namespace

TEST(Prove, InstanceLock) {
  const FixtureRoot root;
  root.Run([] {
    void* memory = ::mmap(nullptr, sizeof(Arena), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    Arena& arena = *new (memory) Arena{};
    std::vector<pid_t> contenders;
    for (unsigned int contender = 0; contender < 8; ++contender) {
      contenders.push_back(::fork());
      if (contenders.back() == 0) Contend(arena, contender);
    }
    ::sleep(static_cast<unsigned int>(Rounds(10, 3)));
    arena.isOver = true;
    for (const pid_t contender : contenders)
      EXPECT_EQ(WaitFor(contender), 0);
    EXPECT_EQ(arena.overlaps, 0);
    EXPECT_GT(arena.held, 100);
    Figure("8 contenders for %d s: held %ld times, %d times by two", Rounds(10, 3), arena.held.load(),
           arena.overlaps.load());
  });
}

TEST(Prove, StartAndStop) {
  constexpr int kLanes = 25;
  const int cycles = Rounds(40, 2);
  std::vector<pid_t> lanes;
  for (int lane = 0; lane < kLanes; ++lane) {
    lanes.push_back(::fork());
    if (lanes.back() != 0) continue;
    {
      const DaemonRoot root;
      root.Run([cycles] {
        for (int cycle = 0; cycle < cycles && !testing::Test::HasFailure(); ++cycle)
          StartAndStop();
      });
    }
    ::_exit(HasFailure() ? 1 : 0);
  }
  for (const pid_t lane : lanes)
    EXPECT_EQ(WaitFor(lane, 600), 0);
  Figure("%d starts and stops, %d at a time: exit status 0, nothing left behind", kLanes * cycles, kLanes);
}

TEST(Prove, Signals) {
  const DaemonRoot root;
  root.Run([] {
    ::setenv("QN_LOG_DEBUG_LEVEL", "5", 1);
    ::setenv("TraceFileLimit", "1", 1);
    ::setenv("QN_LOG_RINGBUF_WEIGHT", "1", 1);
    ::setenv("QN_LOG_FILE_MAX_SIZE", "1000000000", 1);
    const pid_t daemon = StartDaemon();
    ASSERT_TRUE(WaitReady());
    ::kill(daemon, SIGHUP);
    ::usleep(100000);
    const size_t descriptors = OpenDescriptors(daemon);
    const long memory = StatusValue(daemon, "\nVmRSS:");
    const int signals = Rounds(10000, 1000);
    for (int signal = 1; signal < signals; ++signal) {
      ::kill(daemon, signal % 3 == 0 ? SIGALRM : SIGHUP);
      ::usleep(signal % 10 == 0 ? 0 : 300);
    }
    ::usleep(200000);
    EXPECT_EQ(OpenDescriptors(daemon), descriptors);
    EXPECT_LT(StatusValue(daemon, "\nVmRSS:") - memory, 1100) << "more than the ring buffer's own pages";
    ::kill(daemon, SIGTERM);
    EXPECT_EQ(WaitFor(daemon), 0);
    ExpectNothingLeft();
    const std::string log = Log();
    const int toggled = CountIn(log, "Signal 1 (SIGHUP) caught");
    EXPECT_EQ(CountIn(log, "Trace reset due to SIGHUP"), (toggled + 1) / 2);
    EXPECT_EQ(CountIn(log, "Trace forced due to SIGHUP"), toggled / 2);
    EXPECT_GT(toggled, signals / 10);
    // The stop is traced at level 2 when the last toggle left the trace on.
    const std::string ring = ReadWholeFile("/var/log/pelrix/log.ravd_a");
    EXPECT_EQ(CountIn(ring, "OnExitService      : Stopping all modules") != 0, toggled % 2 == 0);
    Figure("%d signals sent, %d toggles and %d alarms taken, descriptors level, trace state right, stopped with 0",
           signals, toggled, CountIn(log, "caught -> ignoring"));
  });
}

TEST(Prove, KilledStart) {
  const DaemonRoot root;
  root.Run([] {
    // Every start but the first meets what a killed one left: the second shows the calls to come.
    for (int run = 0; run < 2; ++run) {
      ::unlink(kLog);
      const pid_t traced = Start({"/usr/bin/strace", "-o", "/calls", "/ravd", "-n"});
      ASSERT_TRUE(WaitReady()) << ReadWholeFile("/stderr");
      ::kill(std::atoi(ReadWholeFile(kPidFile).c_str()), SIGKILL);
      EXPECT_EQ(RawStatus(WaitFor(traced)), -SIGKILL);
    }
    int kills = 0;
    int step = 0;
    for (const SystemCall& call : ReadCalls("/calls", "/var/lock")) {
      if (call.name == "rt_sigtimedwait") break;
      if (step++ % Rounds(1, 7) != 0) continue;
      const std::string inject = "inject=" + call.name + ":signal=SIGKILL:when=" + std::to_string(call.number);
      const int status =
          RunCommand({"/usr/bin/timeout", "10", "/usr/bin/strace", "-o", "/calls", "-e", inject, "/ravd", "-n"});
      ASSERT_TRUE(status == -SIGKILL || status == 128 + SIGKILL) << status << " " << inject << "\n"
                                                                 << ReadWholeFile("/stderr");
      ++kills;
    }
    ASSERT_NO_FATAL_FAILURE(StartAndStop());
    EXPECT_GT(kills, 10);
    Figure("killed at %d system calls of a start: the next start works", kills);
  });
}

TEST(Prove, BadSwitches) {
  for (const SwitchRow& row : kSwitches) {
    SCOPED_TRACE(row.behaviour);
    TrySwitch(row);
  }
  Figure("%zu bad switches: the stated outcome each", std::size(kSwitches));
}

TEST(Prove, WritableDirectories) {
  constexpr const char* kPlaces[] = {"/etc/norrow/QuennetSuite/TraceConfig", "/etc/pelrix", "/var/log/pelrix",
                                     "/lib-switch"};
  for (const char* writable : kPlaces) {
    const DaemonRoot root;
    root.WriteFile("/etc/norrow/QuennetSuite/TraceConfig/other.ini", "");
    root.MakeDirectory(writable, 0777);
    root.Run([writable] {
      StartAndStop();
      EXPECT_EQ(CountIn(Log(), "WARNING: "), 1) << Log();
      EXPECT_EQ(CountIn(Log(), std::string("RAVD-MAIN: WARNING: ") + writable + " is writable for others than root\n"),
                1);
    });
  }
  Figure("%zu directories that others may write to: one warning each", std::size(kPlaces));
}
