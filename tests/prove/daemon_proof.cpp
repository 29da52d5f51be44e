// The built daemon with bad module switches, and with files that others may write.

#include "prove/prove.h"

namespace {

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

void ExpectNothingLeft() {
  for (const char* path : {kPidFile, kLockFile, "/etc/pelrix/registry.new"})
    EXPECT_NE(::access(path, F_OK), 0) << path;
  int status = 0;
  EXPECT_TRUE(::waitpid(-1, &status, WNOHANG) == -1 && errno == ECHILD) << "a process or a zombie was left";
}

// What the trace of an orderly run looks like.
void ExpectWholeTrace() {
  constexpr const char* kCommand = "argv[0] = \"/ravd\"\n";
  ExpectInOrder(Log(), {kCommand, "Done initializing", "Waiting for signals...", "## EXIT PROCESS RAVD ##\n"});
  const std::string ring = ReadWholeFile(kRing);
  EXPECT_EQ(ring.size(), size_t{1} << 20U);
  EXPECT_LT(ring.find(kCommand), 200U) << "the header block is damaged";
  ExpectInOrder(ring, {"# End of header.\n", "### Begin of RingBuffer. ###\n", "### Start of initialization. ###\n",
                       "Waiting for signals...", "## EXIT PROCESS RAVD ##\n", "## TRACE-END ##\n"});
  EXPECT_NE(::access(kStartUpRing, F_OK), 0);
  EXPECT_EQ(RunCommand({"/bin/sh", "-c", std::string("gzip -dc ") + kPackedRing + " > /unpacked"}), 0);
  ExpectInOrder(ReadWholeFile("/unpacked"), {"# End of header.\n", "### Start of initialization. ###\n", kCommand,
                                             "bad: load", "### End of initialization. ###\n", "## TRACE-END ##\n"});
}

void StartAndStop() {
  const pid_t daemon = StartDaemon();
  ASSERT_TRUE(WaitReady()) << Log();
  ::kill(daemon, SIGTERM);
  ASSERT_EQ(WaitFor(daemon), 0) << Log();
  ExpectNothingLeft();
  if (std::getenv("QN_LOG_DEBUG_LEVEL") != nullptr) ExpectWholeTrace();
}

int RawStatus(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
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

// In no file of the root but the library, what was mounted left out.
void ExpectNoStrayOutput() {
  std::filesystem::recursive_directory_iterator entry("/");
  for (; entry != std::filesystem::recursive_directory_iterator(); ++entry) {
    const std::string path = entry->path();
    if (path == "/usr" || path == "/proc" || path == "/dev") entry.disable_recursion_pending();
    if (!entry->is_regular_file() || path == kLibrary) continue;
    EXPECT_EQ(CountIn(ReadWholeFile(path), "stray output"), 0) << path;
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
  EXPECT_TRUE(row.status != 1 || CountIn(Log(), "bad: release") == 0);
  EXPECT_TRUE(CountIn(row.says, "Load") == 0 || CountIn(Log(), "bad: start") == 0) << "no modules, so none is started";
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
