// The built daemon: signals, kills at each step of its start, and bad module switches.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <map>
#include <set>

#include "prove/prove.h"

namespace {

template <class T>
T& SharedWithChildren() {
  void* memory = ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return *new (memory) T{};
}

// Runs the body once in each of that many processes at a time.
void InLanes(int count, const std::function<void(int)>& body) {
  std::vector<pid_t> lanes;
  for (int lane = 0; lane < count; ++lane) {
    lanes.push_back(::fork());
    if (lanes.back() != 0) continue;
    body(lane);
    ::_exit(testing::Test::HasFailure() ? 1 : 0);
  }
  for (const pid_t lane : lanes)
    EXPECT_EQ(WaitFor(lane, 900), 0);
}

// The files of the root with what was mounted left out.
std::set<std::string> FilesOfRoot() {
  std::set<std::string> files;
  std::filesystem::recursive_directory_iterator entry("/");
  for (; entry != std::filesystem::recursive_directory_iterator(); ++entry) {
    const std::string path = entry->path();
    if (path == "/usr" || path == "/proc" || path == "/dev") entry.disable_recursion_pending();
    files.insert(path);
  }
  return files;
}

void ExpectNothingLeft() {
  for (const char* path : {kPidFile, kLockFile, "/etc/pelrix/registry.new"})
    EXPECT_NE(::access(path, F_OK), 0) << path;
  int status = 0;
  EXPECT_EQ(::waitpid(-1, &status, WNOHANG), -1) << "a process or a zombie was left";
  EXPECT_EQ(errno, ECHILD);
}

// What the trace of an orderly run looks like.
void ExpectWholeTrace(const char* command = "argv[0] = \"/ravd\"\n") {
  ExpectInOrder(Log(), {command, "Done initializing", "Waiting for signals...", "## EXIT PROCESS RAVD ##\n"});
  const std::string ring = ReadWholeFile(kRing);
  EXPECT_EQ(ring.size(), size_t{1} << 20U);
  EXPECT_LT(ring.find(command), 200U) << "the header block is damaged";
  ExpectInOrder(ring, {"# End of header.\n", "### Begin of RingBuffer. ###\n", "### Start of initialization. ###\n",
                       "Waiting for signals...", "## EXIT PROCESS RAVD ##\n", "## TRACE-END ##\n"});
  EXPECT_NE(::access(kStartUpRing, F_OK), 0);
  EXPECT_EQ(RunCommand({"/bin/sh", "-c", std::string("gzip -dc ") + kPackedRing + " > /unpacked"}), 0);
  ExpectInOrder(ReadWholeFile("/unpacked"), {"# End of header.\n", "### Start of initialization. ###\n", command,
                                             "bad: load", "### End of initialization. ###\n", "## TRACE-END ##\n"});
}

void StartAndStop(bool isBackground = false) {
  const pid_t started = StartDaemon(isBackground);
  ASSERT_TRUE(WaitReady()) << Log();
  const pid_t daemon = isBackground ? PidOfDaemon() : started;
  ::kill(daemon, SIGTERM);
  ASSERT_EQ(WaitFor(daemon), 0) << Log();
  ExpectNothingLeft();
  if (std::getenv("QN_LOG_DEBUG_LEVEL") != nullptr) ExpectWholeTrace();
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

struct SwitchRow {
  const char* library;
  const char* behaviour;
  int status;  // of the daemon that is told to stop: exit status, or minus the signal that ends it
  bool getsReady;
  const char* says;  // in the log file or a ring buffer
};
constexpr const char* kFatal = "FATAL ERROR! Tavrik SWITCH could not be loaded!";
constexpr const char* kStopped = "## EXIT PROCESS RAVD ##";
constexpr SwitchRow kSwitches[] = {
    {"", "", 1, false, "LoadLibrary: ## ERROR:  libswitch.so: cannot open shared object file"},
    {kNoLibrary, "", 1, false, "LoadLibrary: ## ERROR:  /lib-%n%s/libswitch.so: invalid ELF header"},
    {UNDEFINED_SWITCH, "", 1, false, "libswitch.so: undefined symbol: _Z16NowhereToBeFoundv"},
    {BARE_SWITCH, "", 1, false, kFatal},
    {BAD_SWITCH, "refuse", 1, false, kFatal},
    {BAD_SWITCH, "null", 1, false, kFatal},
    {BAD_SWITCH, "no modules", 0, true, "ERROR! Load extension modules FAILED!"},
    {BAD_SWITCH, "load", 0, true, "SWITCH DLL - Exception during LoadModules"},
    {BAD_SWITCH, "unload", 0, true, "SWITCH DLL - Exception during UnloadModules"},
    {BAD_SWITCH, "late load", 0, true, kStopped},
    {BAD_SWITCH, "late start", 0, true, kStopped},
    {BAD_SWITCH, "late notify", 0, true, kStopped},
    {BAD_SWITCH, "late stop", 0, true, kStopped},
    {BAD_SWITCH, "late unload", 0, true, kStopped},
    {BAD_SWITCH, "late release", 0, true, kStopped},
    {BAD_SWITCH, "thread", 0, true, "WARNING! The switch library stays loaded, threads still running: 4\n"},
    {BAD_SWITCH, "joined thread", 0, true, kStopped},
    {BAD_SWITCH, "descriptors", 0, true, kStopped},
    // What the library throws elsewhere is not caught.
    {BAD_SWITCH, "query throws", -SIGABRT, false, "bad: query"},
    {BAD_SWITCH, "start", -SIGABRT, false, "bad: start"},
    {BAD_SWITCH, "notify", -SIGABRT, true, "bad: notify"},
    {BAD_SWITCH, "stop", -SIGABRT, true, "bad: stop"},
    {BAD_SWITCH, "release", -SIGABRT, true, "bad: release"},
};

void ExpectNoStrayOutput() {
  for (const std::string& path : FilesOfRoot()) {
    const bool isOutput = std::filesystem::is_regular_file(path) && path != kLibrary;
    EXPECT_EQ(isOutput ? CountIn(ReadWholeFile(path), "stray output") : 0, 0) << path;
  }
}

void ExpectReservedDescriptors(pid_t daemon) {
  for (const char* number : {"0", "1", "2"})
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(daemon) + "/fd/" + number), "/dev/null");
}

void TrySwitch(const SwitchRow& row) {
  ::setenv("BAD_SWITCH", row.behaviour, 1);
  const pid_t daemon = StartDaemon();
  if (row.getsReady) {
    ASSERT_TRUE(WaitReady()) << Log();
    if (std::string(row.behaviour) == "descriptors") ExpectReservedDescriptors(daemon);
    ::kill(daemon, SIGTERM);
  }
  EXPECT_EQ(RawStatus(WaitFor(daemon)), row.status) << Log();
  EXPECT_EQ(CountIn(Log(), kFatal), row.status == 1 ? 1 : 0);
  ExpectNoStrayOutput();
  if (row.status == 0) {
    ExpectWholeTrace();
    const bool isClosed = Log().find("bad: destroyed") < Log().find(kStopped);
    EXPECT_EQ(isClosed, std::string(row.behaviour) != "thread");
  }
  const std::string trace = Log() + TextOf(kStartUpRing) + TextOf("/unpacked") + TextOf(kRing);
  EXPECT_NE(trace.find(row.says), std::string::npos) << row.says;
  if (row.status >= 0) return ExpectNothingLeft();
  ::setenv("BAD_SWITCH", "", 1);
  StartAndStop();
}

struct KilledForm {
  const char* name;
  std::vector<std::string> command;
  bool isBackground;
};
const KilledForm kForms[] = {{"foreground", {"/ravd", "-n"}, false}, {"background", {"/ravd"}, true}};

std::vector<std::string> UnderStrace(const KilledForm& form, const std::string& inject = "") {
  std::vector<std::string> command = {"/usr/bin/timeout", "60", "/usr/bin/strace", "-ff", "-o", "/calls"};
  if (!inject.empty()) command.insert(command.end(), {"-e", "inject=" + inject});
  command.insert(command.end(), form.command.begin(), form.command.end());
  return command;
}

// A daemon in the background that was killed became a child of this process.
void ReapKilled() {
  while (::waitpid(-1, nullptr, WNOHANG) > 0) {
  }
}

// "name:signal=SIGKILL:when=number" for the calls of the daemon between the lock and the first wait for a signal. In
// the background those of the child alone, and of them those that the parent does not come to: the tracer counts for
// each process. Of calls of one name in a row each eighth; none of those that read the resident memory, whose number
// depends on the time that a start takes.
std::vector<std::string> StepsOfStart(const KilledForm& form) {
  ::unlink(kLog);
  const pid_t traced = Start(UnderStrace(form));
  EXPECT_TRUE(WaitReady()) << ReadWholeFile("/stderr");
  const std::string daemon = std::to_string(PidOfDaemon());
  std::map<std::string, int> ofParent;
  for (const auto& file : std::filesystem::directory_iterator("/")) {
    const std::string path = file.path();
    if (!form.isBackground || !path.starts_with("/calls.") || path == "/calls." + daemon) continue;
    for (const SystemCall& call : ReadCalls(path.c_str(), "execve"))
      ofParent[call.name] = std::max(ofParent[call.name], call.number);
  }
  const std::vector<SystemCall> calls = ReadCalls(("/calls." + daemon).c_str(), form.isBackground ? "(" : "/var/lock");
  ::kill(PidOfDaemon(), SIGKILL);
  WaitFor(traced);
  ReapKilled();
  std::vector<std::string> steps;
  std::string last;
  int repeated = 0;
  for (const SystemCall& call : calls) {
    if (call.name == "rt_sigtimedwait") break;
    if (call.name == "pread64") continue;
    repeated = call.name == last ? repeated + 1 : 0;
    last = call.name;
    if (repeated % 8 == 0 && call.number > ofParent[call.name])
      steps.push_back(call.name + ":signal=SIGKILL:when=" + std::to_string(call.number));
  }
  return steps;
}

void RemoveCalls() {
  for (const auto& file : std::filesystem::directory_iterator("/"))
    if (file.path().string().starts_with("/calls")) std::filesystem::remove(file.path());
}

struct WritableRow {
  const char* path;
  mode_t mode;
  uid_t owner;
  gid_t group;
  bool isWarnedOf;
};
constexpr uid_t kOther = 12;
constexpr WritableRow kWritableRows[] = {
    {"/etc/norrow/QuennetSuite/TraceConfig", 0777, 0, 0, true},
    {"/etc/pelrix", 0777, 0, 0, true},
    {"/var/log/pelrix", 0777, 0, 0, true},
    {kLibraryDirectory, 0777, 0, 0, true},
    {kLibraryDirectory, 0755, kOther, 0, true},
    {kLibraryDirectory, 0775, 0, kOther, true},
    {kLibraryDirectory, 0775, 0, 0, false},  // root's own group
    {kLibraryDirectory, 0755, 0, kOther, false},
    {kLibrary, 0777, 0, 0, true},
    {kLibrary, 0755, kOther, 0, true},
    {kLibrary, 0775, 0, kOther, true},
    {"/etc", 0755, 0, 0, false},  // a clean root
};

}  // namespace

TEST(Prove, Signals) {
  const DaemonRoot root(RAVD_BINARY, BAD_SWITCH);
  root.Run([] {
    SwitchTracingOn();
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
    const std::string ring = ReadWholeFile(kRing);
    EXPECT_EQ(CountIn(ring, "OnExitService      : Stopping all modules") != 0, toggled % 2 == 0);
    Figure("%d signals sent, %d toggles and %d alarms taken, descriptors level, trace state right, stopped with 0",
           signals, toggled, CountIn(log, "caught -> ignoring"));
  });
}

TEST(Prove, KilledStart) {
  constexpr int kLanes = 12;
  struct Kills {
    std::atomic<int> of[2];
  };
  Kills& kills = SharedWithChildren<Kills>();
  InLanes(kLanes, [&kills](int lane) {
    const DaemonRoot root(RAVD_BINARY, BAD_SWITCH);
    root.Run([&kills, lane] {
      SwitchTracingOn();
      const KilledForm& form = kForms[lane % 2];
      SCOPED_TRACE(form.name);
      // Each start that is killed, and the one that shows the calls to come, follows one that was stopped in order.
      StartAndStop(form.isBackground);
      const std::vector<std::string> steps = StepsOfStart(form);
      StartAndStop(form.isBackground);
      const auto stride = static_cast<size_t>(kLanes / 2 * Rounds(1, 7));
      for (size_t step = static_cast<size_t>(lane) / 2; step < steps.size(); step += stride) {
        SCOPED_TRACE(steps[step]);
        RemoveCalls();
        const int status = RunCommand(UnderStrace(form, steps[step]));
        ASSERT_TRUE(form.isBackground ? status == 0 : status == -SIGKILL || status == 128 + SIGKILL)
            << status << ReadWholeFile("/stderr");
        ReapKilled();
        ASSERT_NO_FATAL_FAILURE(StartAndStop(form.isBackground));
        ++kills.of[lane % 2];
        if (HasFailure()) return;
      }
    });
  });
  EXPECT_GT(kills.of[0], 10);
  EXPECT_GT(kills.of[1], 10);
  Figure(
      "killed at %d system calls of a start in the foreground, %d in the background: the next start works, trace whole",
      kills.of[0].load(), kills.of[1].load());
}

TEST(Prove, BadSwitches) {
  InLanes(std::size(kSwitches), [](int lane) {
    const SwitchRow& row = kSwitches[lane];
    SCOPED_TRACE(row.behaviour);
    const DaemonRoot root(RAVD_BINARY, row.library);
    root.Run([&row] {
      SwitchTracingOn();
      const bool isOfThreads = std::string(row.behaviour) == "thread";
      for (int stop = isOfThreads ? Rounds(30, 3) : 1; stop > 0 && !HasFailure(); --stop)
        TrySwitch(row);
    });
  });
  Figure("%zu bad switches: the stated outcome each, and the next start works", std::size(kSwitches));
}

TEST(Prove, WritableDirectories) {
  if (::getuid() != 0) GTEST_SKIP() << "needs a second user";
  int warnings = 0;
  for (const WritableRow& row : kWritableRows)
    warnings += row.isWarnedOf ? 1 : 0;
  InLanes(std::size(kWritableRows), [](int lane) {
    const WritableRow& row = kWritableRows[lane];
    SCOPED_TRACE(testing::Message() << row.path << " " << std::oct << row.mode << " " << row.owner << ":" << row.group);
    const DaemonRoot root(RAVD_BINARY, BAD_SWITCH);
    root.WriteFile("/etc/norrow/QuennetSuite/TraceConfig/other.ini", "");
    ASSERT_EQ(::chown(root.HostPath(row.path).c_str(), row.owner, row.group), 0);
    ASSERT_EQ(::chmod(root.HostPath(row.path).c_str(), row.mode), 0);
    root.Run([&row] {
      StartAndStop();
      EXPECT_EQ(CountIn(Log(), "WARNING: "), row.isWarnedOf ? 1 : 0) << Log();
      const std::string warning = std::string("RAVD-MAIN: WARNING: ") + row.path;
      EXPECT_EQ(CountIn(Log(), warning + " is writable for others than root\n"), row.isWarnedOf ? 1 : 0);
    });
  });
  Figure("%zu owners, groups and modes of directories and the library: %d warned of, one line each",
         std::size(kWritableRows), warnings);
}
