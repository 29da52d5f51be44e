// Drives the built daemon from outside, in a root of its own.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include "support/fixture_root.h"

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

namespace {

constexpr const char* kLog = "/var/log/pelrix/log.ravd";
constexpr const char* kPidFile = "/var/run/ravd.pid";
constexpr const char* kLockFile = "/var/lock/ravd.lock";

// Seen from inside: starts the daemon, looks at what it leaves and ends it.
class Daemon {
 public:
  explicit Daemon(std::vector<std::string> arguments, const std::string& switchBehaviour = "") {
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);  // a daemon in the background stays a child of this process
    ::setenv("LD_LIBRARY_PATH", "/lib-switch", 1);
    ::setenv("ODD_SWITCH", switchBehaviour.c_str(), 1);
    ::setenv("QN_NICKNAME", "SLES12", 1);  // the run level file counts, with systemd on the machine or without
    m_Started = Spawn(std::move(arguments));
  }

  static pid_t Spawn(std::vector<std::string> arguments) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    ::close(STDERR_FILENO);
    ::open("/stderr", O_CREAT | O_TRUNC | O_WRONLY, 0644);
    std::vector<char*> argv{const_cast<char*>("/ravd")};
    for (std::string& argument : arguments)
      argv.push_back(argument.data());
    argv.push_back(nullptr);
    ::execv("/ravd", argv.data());
    ::_exit(127);
  }

  pid_t Started() const { return m_Started; }

  static int WaitExit(pid_t pid) {
    int status = 0;
    return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  static std::string Log() { return ::access(kLog, R_OK) == 0 ? ReadWholeFile(kLog) : ""; }
  static std::string StandardError() { return ReadWholeFile("/stderr"); }

  static bool WaitUntil(const std::function<bool()>& condition) {
    for (int tries = 0; tries < 2000; ++tries) {
      if (condition()) return true;
      ::usleep(10000);
    }
    return false;
  }

  static bool WaitForLog(const std::string& text) {
    return WaitUntil([&text] { return Log().find(text) != std::string::npos; });
  }

  // Waits until it takes signals.
  static bool WaitReady() { return WaitForLog("Waiting for signals..."); }

  static pid_t Pid() { return std::atoi(ReadWholeFile(kPidFile).c_str()); }

 private:
  pid_t m_Started = -1;
};

class DaemonRoot : public FixtureRoot {
 public:
  DaemonRoot() {
    for (const char* directory : {"/var/log/pelrix", "/var/run", "/etc/pelrix", "/lib-switch", "/dev"}) {
      MakeDirectory(directory);
    }
    std::filesystem::copy(RAVD_BINARY, HostPath("/ravd"));
    std::filesystem::copy(ODD_SWITCH_LIBRARY, HostPath("/lib-switch/libswitch.so"));
  }

  void Run(const std::function<void()>& body) const { FixtureRoot::Run(body, kUsr | kProc); }
};

// Position of every text behind the one before it.
void ExpectInOrder(const std::string& log, const std::vector<std::string>& texts) {
  size_t at = 0;
  for (const std::string& text : texts) {
    const size_t found = log.find(text, at);
    ASSERT_NE(found, std::string::npos) << "\"" << text << "\" is missing behind position " << at << " of\n" << log;
    at = found + text.size();
  }
}

}  // namespace

TEST(Daemon, ForegroundRunFromStartToStop) {
  const DaemonRoot root;
  root.WriteFile("/etc/pelrix/RunLevel", "6\n");
  root.Run([] {
    ::setenv("QN_LOG_DEBUG_LEVEL", "2", 1);
    ::setenv("TraceFileLimit", "1", 1);
    ::setenv("QN_LOG_RINGBUF_WEIGHT", "1", 1);
    const Daemon daemon({"-rescan", "-tessel", "-agentless", "-n"});
    ASSERT_TRUE(Daemon::WaitReady());
    EXPECT_EQ(Daemon::StandardError(), "/ravd: RAVD-MAIN: started in \"No Demon\" Mode\n");
    EXPECT_EQ(ReadWholeFile(kLockFile), "ravd#" + std::to_string(daemon.Started()));
    EXPECT_EQ(ReadWholeFile(kPidFile), std::to_string(daemon.Started()) + "\n");
    struct stat info {};
    ::stat(kPidFile, &info);
    EXPECT_EQ(info.st_mode & 0777U, 0640U);  // umask 026
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(daemon.Started()) + "/cwd"), "/");

    // A second one leaves everything as it is.
    EXPECT_EQ(Daemon::WaitExit(Daemon::Spawn({"-n"})), 1);
    EXPECT_EQ(Daemon::StandardError(), "/ravd: RAVD-MAIN: Error! Another process instance is already running!\n");
    EXPECT_EQ(ReadWholeFile(kLockFile), "ravd#" + std::to_string(daemon.Started()));

    ::kill(daemon.Started(), SIGALRM);
    ASSERT_TRUE(Daemon::WaitForLog("(SIGALRM) caught -> ignoring"));
    ::kill(daemon.Started(), SIGHUP);
    ASSERT_TRUE(Daemon::WaitForLog("Trace reset due to SIGHUP"));
    ::kill(daemon.Started(), SIGHUP);
    ASSERT_TRUE(Daemon::WaitForLog("Trace forced due to SIGHUP"));
    ::kill(daemon.Started(), SIGTERM);
    EXPECT_EQ(Daemon::WaitExit(daemon.Started()), 0);
    EXPECT_NE(::access(kPidFile, F_OK), 0);
    EXPECT_NE(::access(kLockFile, F_OK), 0);
  });
  const std::string log = root.ReadFile(kLog);
  ExpectInOrder(log, {"ravd Command Line Options:",
                      "argv[4] = \"-n\"",
                      "ravd Version=\"3.12-05\" Milestone=\"-\" Built=\"",
                      "RAVD-MAIN: running as x86_64 (64-Bit) process; Build on SLES11 GA x86_64 (64-Bit)\n",
                      "odd: constructed",
                      "odd: load flags=1 mode=5 master=1\n",
                      "odd: start\n",
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
                      "odd: notify 00020000 level -99 1\n",
                      "odd: notify 00030000 level 6 1\n",
                      "RAVD-MAIN: ## Someone signaled exit state ##\n",
                      "odd: stop\n",
                      "odd: unload 0\n",
                      "odd: release\n",
                      "odd: destroyed\n",
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

TEST(Daemon, BackgroundRunKeepsTheLockOfItsParent) {
  const DaemonRoot root;
  root.Run([] {
    const Daemon daemon({});
    EXPECT_EQ(Daemon::WaitExit(daemon.Started()), 0);
    ASSERT_TRUE(Daemon::WaitReady());
    EXPECT_EQ(Daemon::StandardError(), "");
    const pid_t pid = Daemon::Pid();
    EXPECT_NE(pid, daemon.Started());
    EXPECT_EQ(::getsid(pid), pid);
    EXPECT_EQ(ReadWholeFile(kLockFile), "ravd#" + std::to_string(daemon.Started()));
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/fd/2"), "/dev/null");
    EXPECT_EQ(Daemon::WaitExit(Daemon::Spawn({})), 1);
    ::kill(pid, SIGINT);
    EXPECT_EQ(Daemon::WaitExit(pid), 0);
    EXPECT_NE(::access(kPidFile, F_OK), 0);
    EXPECT_NE(::access(kLockFile, F_OK), 0);
  });
  const std::string log = root.ReadFile(kLog);
  // No run level file: three tries, then a simple stop without the news of a shutdown.
  ExpectInOrder(log, {"INFO: smbus-driver is not available", "cannot open /etc/pelrix/RunLevel (try 0)", "(try 1)",
                      "(try 2)", "RAVD-MAIN: this seems to be a simple stop of RAVD (not OS shutdown)\n",
                      "RAVD-MAIN: Current RunLevel = 5\n", "odd: notify 00020000 level -99 1\n", "Someone signaled"});
  EXPECT_THAT(log, Not(HasSubstr("00030000")));
}

TEST(Daemon, OrdinaryUserIsRefusedBeforeAnythingHappens) {
  if (::getuid() != 0) GTEST_SKIP() << "needs a second user";
  const DaemonRoot root;
  root.Run([] {
    const pid_t child = ::fork();
    if (child == 0) {
      if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(99);
      ::execl("/ravd", "/ravd", nullptr);
      ::_exit(98);
    }
    EXPECT_EQ(Daemon::WaitExit(child), 1);
    EXPECT_NE(::access("/var/lock", F_OK), 0);
  });
}

TEST(Daemon, SwitchThatCannotBeUsedEndsTheStart) {
  for (const char* behaviour : {"refuse", "null", "missing"}) {
    SCOPED_TRACE(behaviour);
    const DaemonRoot root;
    if (std::string(behaviour) == "missing") root.Remove("/lib-switch/libswitch.so");
    root.Run([behaviour] {
      const Daemon daemon({"-nodemon"}, behaviour);
      EXPECT_EQ(Daemon::WaitExit(daemon.Started()), 1);
      EXPECT_NE(::access(kPidFile, F_OK), 0);
      EXPECT_NE(::access(kLockFile, F_OK), 0);
      EXPECT_THAT(Daemon::Log(), HasSubstr("RAVD-MAIN: FATAL ERROR! Tavrik SWITCH could not be loaded!\n"));
      EXPECT_THAT(Daemon::Log(), Not(HasSubstr("odd: release")));
    });
  }
}

TEST(Daemon, ModulesThatCannotBeLoadedLeaveItRunning) {
  for (const char* behaviour : {"fail", "throw"}) {
    SCOPED_TRACE(behaviour);
    const DaemonRoot root;
    root.WriteFile("/etc/pelrix/RunLevel", "3");
    root.Run([behaviour] {
      const Daemon daemon({"-n"}, behaviour);
      ASSERT_TRUE(Daemon::WaitReady());
      ::kill(daemon.Started(), SIGTERM);
      EXPECT_EQ(Daemon::WaitExit(daemon.Started()), 0);
      EXPECT_THAT(Daemon::Log(), Not(HasSubstr("odd: start")));
      ExpectInOrder(Daemon::Log(),
                    {"## Done initializing ##", "odd: stop", "odd: unload 0", "odd: release", "EXIT PROCESS"});
    });
  }
}

TEST(Daemon, IdleDaemonSleepsAndStaysSmall) {
  const DaemonRoot root;
  root.WriteFile("/etc/pelrix/RunLevel", "3");
  root.Run([] {
    const Daemon daemon({"-n"});
    ASSERT_TRUE(Daemon::WaitReady());
    const auto status = [&daemon](const std::string& key) {
      const std::string text = ReadWholeFile("/proc/" + std::to_string(daemon.Started()) + "/status");
      return std::atol(text.c_str() + text.find(key) + key.size());
    };
    ::usleep(200000);
    const long switches = status("\nvoluntary_ctxt_switches:");
    ::usleep(1000000);
    EXPECT_EQ(status("\nvoluntary_ctxt_switches:"), switches);
    EXPECT_EQ(status("\nThreads:"), 1);
    if (RAVD_SANITIZED == 0) {
      EXPECT_LT(status("\nVmRSS:"), 6 * 1024);
    }
    ::kill(daemon.Started(), SIGTERM);
    EXPECT_EQ(Daemon::WaitExit(daemon.Started()), 0);
  });
}

// RAVD_KILL_ROUNDS in the environment makes it as long as wanted.
TEST(Daemon, KilledDaemonNeverKeepsTheNextOneOut) {
  const char* wanted = std::getenv("RAVD_KILL_ROUNDS");
  const int rounds = wanted != nullptr ? std::atoi(wanted) : 40;
  const DaemonRoot root;
  root.Run([rounds] {
    for (int round = 0; round < rounds; ++round) {
      const Daemon daemon({"-n"});
      // Killed at any moment between the lock and the wait for signals.
      ASSERT_TRUE(Daemon::WaitUntil([&daemon] {
        return ::access(kLockFile, F_OK) == 0 && ReadWholeFile(kLockFile) == "ravd#" + std::to_string(daemon.Started());
      })) << "round "
          << round << ": " << Daemon::StandardError();
      ::usleep(static_cast<useconds_t>(round * 7919 % 20000));
      ::kill(daemon.Started(), SIGKILL);
      int status = 0;
      ASSERT_EQ(::waitpid(daemon.Started(), &status, 0), daemon.Started());
      ASSERT_TRUE(WIFSIGNALED(status)) << "round " << round << ": it ended by itself with " << WEXITSTATUS(status);
    }
  });
}

TEST(Daemon, ExportsTheTraceObjectAlone) {
  FILE* pipe = ::popen("nm -D --defined-only " RAVD_BINARY, "r");
  ASSERT_NE(pipe, nullptr);
  std::string symbols;
  for (int character = std::fgetc(pipe); character != EOF; character = std::fgetc(pipe)) {
    symbols += static_cast<char>(character);
  }
  ASSERT_EQ(::pclose(pipe), 0);
  if (RAVD_SANITIZED != 0) GTEST_SKIP() << "a sanitizer's runtime exports symbols of its own";
  EXPECT_THAT(symbols, MatchesRegex("[0-9a-f]{16} [BD] Debug\n"));
}
