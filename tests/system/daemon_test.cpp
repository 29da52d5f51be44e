// Drives the built daemon from outside, in a root of its own.

#include <sys/socket.h>
#include <sys/un.h>

#include "platform/unique_fd.h"
#include "support/daemon_root.h"

using ::testing::HasSubstr, ::testing::MatchesRegex, ::testing::Not;

namespace {

// A run to its end and its exit status.
void Stop(pid_t daemon, int signal = SIGTERM) {
  ::kill(daemon, signal);
  EXPECT_EQ(WaitFor(daemon), 0) << Log();
  EXPECT_NE(::access(kPidFile, F_OK), 0);
  EXPECT_NE(::access(kLockFile, F_OK), 0);
}

std::string LinkOf(pid_t process, const std::string& name) {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/" + std::to_string(process) + "/" + name, error);
}

// A service manager's end of the socket.
UniqueFd Manager() {
  UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address{AF_UNIX, "/notify"};
  EXPECT_EQ(::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ::setenv("NOTIFY_SOCKET", "/notify", 1);
  return socket;
}

}  // namespace

TEST(Daemon, ForegroundRunFromStartToStop) {
  const DaemonRoot root(RAVD_BINARY, BAD_SWITCH);
  root.WriteFile("/etc/pelrix/RunLevel", "6\n");
  root.Run([] {
    SwitchTracingOn();
    ::setenv("QN_LOG_DEBUG_LEVEL", "2", 1);
    const UniqueFd manager = Manager();
    const pid_t daemon = StartDaemon(false, {"-rescan", "-tessel", "-agentless"});
    // Ready is who has finished its start, and only who has.
    char message[8] = {};
    EXPECT_EQ(::recv(manager.Get(), message, sizeof message, 0), 7);
    EXPECT_STREQ(message, "READY=1");
    EXPECT_NE(Log().find("## Done initializing ##"), std::string::npos);
    EXPECT_NE(::access(kRing, F_OK), -1);
    ASSERT_TRUE(WaitReady());
    EXPECT_EQ(TextOf("/stderr"), "/ravd: RAVD-MAIN: started in \"No Demon\" Mode\n");
    EXPECT_EQ(ReadWholeFile(kLockFile), "ravd#" + std::to_string(daemon));
    EXPECT_EQ(ReadWholeFile(kPidFile), std::to_string(daemon) + "\n");
    EXPECT_EQ(std::filesystem::status(kPidFile).permissions(), std::filesystem::perms(0640));  // umask 026
    EXPECT_EQ(LinkOf(daemon, "cwd"), "/");

    // A second one leaves everything as it is.
    EXPECT_EQ(RunCommand({"/ravd", "-n"}), 1);
    EXPECT_EQ(TextOf("/stderr"), "/ravd: RAVD-MAIN: Error! Another process instance is already running!\n");
    EXPECT_EQ(ReadWholeFile(kLockFile), "ravd#" + std::to_string(daemon));

    ::kill(daemon, SIGALRM);
    ASSERT_TRUE(WaitForLog("(SIGALRM) caught -> ignoring"));
    ::kill(daemon, SIGHUP);
    ASSERT_TRUE(WaitForLog("Trace reset due to SIGHUP"));
    ::kill(daemon, SIGHUP);
    ASSERT_TRUE(WaitForLog("Trace forced due to SIGHUP"));
    Stop(daemon);
  });
  const std::string log = root.ReadFile(kLog);
  ExpectInOrder(log, {"ravd Command Line Options:",
                      "argv[4] = \"-n\"",
                      "ravd Version=\"3.12-05\" Milestone=\"-\" Built=\"",
                      "RAVD-MAIN: running as x86_64 (64-Bit) process; Build on SLES11 GA x86_64 (64-Bit)\n",
                      "bad: constructed",
                      "bad: flags 1 mode 5 master 1\n",
                      "bad: start\n",
                      "RAVD-MAIN: ## Done initializing ##\n",
                      "RAVD-MAIN:  Waiting for signals...\n",
                      "RAVD-MAIN:  ... got signal 14\n",
                      "RAVD-MAIN: WARNING: Signal 14 (SIGALRM) caught -> ignoring\n",
                      "RAVD-MAIN:  ... got signal 1\n",
                      "RAVD-MAIN: Signal 1 (SIGHUP) caught\n",
                      "RAVD-MAIN: Trace reset due to SIGHUP\n",
                      "RAVD-MAIN: Trace forced due to SIGHUP\n",
                      "RAVD-MAIN:  ... got signal 15\n",
                      "RAVD-MAIN: Signal 15 caught -> processing\n",
                      "RAVD-MAIN: Current RunLevel = 6\n",
                      "bad: event 00020000 level -99 1\n",
                      "bad: event 00030000 level 6 1\n",
                      "RAVD-MAIN: ## Someone signaled exit state ##\n",
                      "bad: stop\n",
                      "bad: argument 0\n",
                      "bad: release\n",
                      "bad: destroyed\n",
                      "RAVD-MAIN: ## EXIT PROCESS RAVD ##\n"});
  EXPECT_THAT(log, Not(HasSubstr("smbus")));  // only asked in run mode 0
  const size_t start = log.find("Start=\"");
  EXPECT_THAT(log.substr(start, log.find('\n', start) - start),
              MatchesRegex("Start=\"[A-Z][a-z]{2} [ 0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\""));
  const std::string ring = root.ReadFile("/var/log/pelrix/log.ravd_a");
  ExpectInOrder(ring, {"### Start of initialization. ###", "RAVD-MAIN: Trace forced due to SIGHUP\n",
                       "RAVD-MAIN::OnExitService      : Stopping all modules...\n",
                       "RAVD-MAIN::OnExitService      : ... all modules stopped\n",
                       "RAVD-MAIN::OnExitService      : ... unload of all registered extension modules completed!\n",
                       "RAVD-MAIN: ## EXIT PROCESS RAVD ##\n", "## TRACE-END ##\n"});
  EXPECT_TRUE(root.Exists("/var/log/pelrix/log.ravd_i.gz"));
}

TEST(Daemon, BackgroundRunKeepsTheLockOfItsParentAndNothingElse) {
  const DaemonRoot root(RAVD_BINARY, BAD_SWITCH);
  root.Remove("/etc/pelrix/RunLevel");
  root.Run([] {
    ASSERT_EQ(::mkdir("/started-here", 0755), 0);
    ASSERT_EQ(::chdir("/started-here"), 0);
    const int inherited = ::open("/inherited", O_CREAT | O_RDWR, 0644);
    const pid_t started = StartDaemon(true);
    ASSERT_TRUE(WaitReady());
    ::close(inherited);
    EXPECT_EQ(TextOf("/stderr"), "");
    const pid_t pid = PidOfDaemon();
    EXPECT_NE(pid, started);
    EXPECT_EQ(::getsid(pid), pid);
    EXPECT_EQ(LinkOf(pid, "cwd"), "/");
    EXPECT_EQ(ReadWholeFile(kLockFile), "ravd#" + std::to_string(started));
    EXPECT_EQ(LinkOf(pid, "fd/2"), "/dev/null");
    for (int fd = 3; fd < 20; ++fd)
      EXPECT_NE(LinkOf(pid, "fd/" + std::to_string(fd)), "/inherited");
    EXPECT_EQ(RunCommand({"/ravd"}), 1);
    Stop(pid, SIGINT);
  });
  const std::string log = root.ReadFile(kLog);
  // No run level file: three tries, then a simple stop without the news of a shutdown.
  ExpectInOrder(log, {"INFO: smbus-driver is not available", "cannot open /etc/pelrix/RunLevel (try 0)", "(try 1)",
                      "(try 2)", "RAVD-MAIN: this seems to be a simple stop of RAVD (not OS shutdown)\n",
                      "RAVD-MAIN: Current RunLevel = 5\n", "bad: event 00020000 level -99 1\n", "Someone signaled"});
  EXPECT_THAT(log, Not(HasSubstr("00030000")));
}

TEST(Daemon, LimitOfItsStarterEndsNoProcess) {
  const DaemonRoot root(RAVD_BINARY, BAD_SWITCH);
  root.Run([] {
    SwitchTracingOn();
    EXPECT_EQ(RunCommand({"/usr/bin/sh", "-c", "ulimit -f 0; /ravd -n & sleep 3; kill $!; wait $!"}), 0);
    EXPECT_NE(::access(kLockFile, F_OK), 0);
  });
}

TEST(Daemon, OrdinaryUserIsRefusedBeforeAnythingHappens) {
  if (::getuid() != 0) GTEST_SKIP() << "needs a second user";
  const DaemonRoot root(RAVD_BINARY, BAD_SWITCH);
  root.Run([] {
    const pid_t child = ::fork();
    if (child == 0) {
      if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(99);
      ::execl("/ravd", "/ravd", nullptr);
      ::_exit(98);
    }
    EXPECT_EQ(WEXITSTATUS(WaitFor(child)), 1);
    EXPECT_NE(::access(kLockFile, F_OK), 0);
  });
}

TEST(Daemon, IdleRunSleepsAndStaysSmallAndManySignalsChangeNeither) {
  const DaemonRoot root(RAVD_BINARY, BAD_SWITCH);
  root.Run([] {
    SwitchTracingOn();
    const pid_t daemon = StartDaemon();
    ASSERT_TRUE(WaitReady());
    const std::string process = "/proc/" + std::to_string(daemon);
    const auto status = [&process](const std::string& key) {
      const std::string text = ReadWholeFile(process + "/status");
      return std::atol(text.c_str() + text.find(key) + key.size());
    };
    const auto descriptors = [&process] {
      return std::distance(std::filesystem::directory_iterator(process + "/fd"), std::filesystem::directory_iterator());
    };
    ::kill(daemon, SIGHUP);
    ASSERT_TRUE(WaitForLog("Trace reset due to SIGHUP"));
    ::usleep(200000);
    const long switches = status("\nvoluntary_ctxt_switches:");
    const auto files = descriptors();
    ::usleep(1000000);
    EXPECT_EQ(status("\nvoluntary_ctxt_switches:"), switches);
    EXPECT_EQ(status("\nThreads:"), 1);
    for (int signal = 1; signal < 1000; ++signal) {
      ::kill(daemon, signal % 3 == 0 ? SIGALRM : SIGHUP);
      ::usleep(signal % 10 == 0 ? 0 : 300);
    }
    ::kill(daemon, SIGALRM);
    ::usleep(200000);
    EXPECT_EQ(descriptors(), files);
    if (RAVD_SANITIZED == 0) {
      EXPECT_LT(status("\nVmRSS:"), 7 * 1024);
    }
    Stop(daemon);
    const int toggles = CountIn(Log(), "Signal 1 (SIGHUP) caught");
    EXPECT_GT(toggles, 0);
    EXPECT_EQ(CountIn(Log(), "Trace reset due to SIGHUP"), (toggles + 1) / 2);
    EXPECT_EQ(CountIn(Log(), "Trace forced due to SIGHUP"), toggles / 2);
  });
}

// RAVD_KILL_ROUNDS in the environment makes it as long as wanted.
TEST(Daemon, KilledDaemonNeverKeepsTheNextOneOut) {
  const char* wanted = std::getenv("RAVD_KILL_ROUNDS");
  const int rounds = wanted != nullptr ? std::atoi(wanted) : 40;
  const DaemonRoot root(RAVD_BINARY, BAD_SWITCH);
  root.Run([rounds] {
    SwitchTracingOn();
    for (int round = 0; round < rounds; ++round) {
      const bool isBackground = round % 4 == 3;
      if (isBackground) ::unlink(kPidFile);
      const pid_t started = StartDaemon(isBackground);
      // Killed at any moment between the lock and the wait for signals.
      ASSERT_TRUE(WaitUntil([&started] { return TextOf(kLockFile) == "ravd#" + std::to_string(started); }))
          << "round " << round << ": " << TextOf("/stderr");
      ::usleep(static_cast<useconds_t>(round * 7919 % 20000));
      ASSERT_TRUE(!isBackground || WaitUntil([] { return ::access(kPidFile, F_OK) == 0 && PidOfDaemon() != 0; }));
      const pid_t daemon = isBackground ? PidOfDaemon() : started;
      ::kill(daemon, SIGKILL);
      ASSERT_EQ(WaitFor(daemon), SIGKILL) << "round " << round << ": it ended by itself";
    }
    const pid_t daemon = StartDaemon();
    ASSERT_TRUE(WaitReady());
    Stop(daemon);
    ExpectInOrder(ReadWholeFile(kRing), {"### Start of initialization. ###\n", "## EXIT PROCESS RAVD ##\n"});
  });
}

TEST(Daemon, ExportsTheTraceObjectAlone) {
  if (RAVD_SANITIZED != 0) GTEST_SKIP() << "a sanitizer's runtime exports symbols of its own";
  FILE* pipe = ::popen("nm -D --defined-only " RAVD_BINARY, "r");
  std::string symbols(200, '\0');
  symbols.resize(std::fread(symbols.data(), 1, symbols.size(), pipe));
  ASSERT_EQ(::pclose(pipe), 0);
  EXPECT_THAT(symbols, MatchesRegex("[0-9a-f]{16} [BD] Debug\n"));
}
