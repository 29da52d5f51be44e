#include "platform/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "support/fixture_root.h"

namespace {

constexpr unsigned int kCommands = FixtureRoot::kUsr | FixtureRoot::kProc;

struct Outcome {
  bool done;
  uint32_t exitCode;

  bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* stream) {
  *stream << outcome.done << " " << outcome.exitCode;
}

Outcome Execute(const std::string& command, const char* directory = nullptr, bool inheritHandles = false) {
  uint32_t pid = 1;
  uint32_t exitCode = 1;
  const bool done = CProcess::ExecuteCmd(command, pid, exitCode, directory, false, inheritHandles);
  return {done, exitCode};
}

void RefuseCloseRange() {
  sock_filter rules[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0), BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS), BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog program{std::size(rules), rules};
  ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

// What a child sees of its own descriptors beyond the standard three and that of the listing.
void ExpectInheritanceAsAskedFor() {
  for (const bool isInherited : {false, true}) {
    for (const char* fd : {"3", "77", "900"}) {
      const std::string path = std::string("/proc/self/fd/") + fd;
      EXPECT_EQ(Execute("test -e " + path, nullptr, isInherited).done, isInherited) << path;
    }
    EXPECT_TRUE(Execute("test -e /proc/self/fd/2", nullptr, isInherited).done);
  }
}

}  // namespace

TEST(Process, MemoryValuesComeFromTheStatusFile) {
  const FixtureRoot root;
  root.WriteFile("/proc/7/status",
                 "Name:\tx VmRSS: 9\nVmPeak:\t 3 MB\nVmSize:  2097152 kB\nVmRSS:\t10244 kB\nVmLib:\t1 GB\nVmSwap: 5\n");
  root.WriteFile("/proc/8/status", "VmSize: 1 kB\nVmLib: 2 kB\nVmSwap:\n");
  root.Run([] {
    uint64_t value = 0;
    CProcess::GetProcessMemorySpecificInfo(7, value, "VmRSS:", CProcess::kilobytes);
    EXPECT_EQ(value, 10244U);
    CProcess::GetProcessMemorySpecificInfo(7, value, "VmSize:", CProcess::gigabytes);
    EXPECT_EQ(value, 2U);
    value = 4096;
    CProcess::GetProcessMemorySpecificInfo(7, value, "VmRSS", CProcess::kilobytes);
    CProcess::GetProcessMemorySpecificInfo(9, value, "VmRSS:", CProcess::kilobytes);
    EXPECT_EQ(value, 4096U >> 20);
    uint64_t size = 1, peak = 1, swap = 1, fourth = 1, noLib = 1;
    EXPECT_TRUE(CProcess::GetProcessMemoryInfo(7, size, peak, swap, fourth, noLib));
    EXPECT_EQ((std::vector{size, peak, swap, fourth, noLib}),
              (std::vector<uint64_t>{2ULL << 30, 3 << 20, 5, 0, 1 << 30}));
    EXPECT_FALSE(CProcess::GetProcessMemoryInfo(8, size, peak, swap, fourth, noLib));
    EXPECT_EQ((std::vector{size, peak, swap, fourth, noLib}), (std::vector<uint64_t>{1024, 0, 0, 0, 0}));
    EXPECT_FALSE(CProcess::GetProcessMemoryInfo(9, size, peak, swap, fourth, noLib));
    EXPECT_EQ(size, 0U);
  });
}

TEST(Process, ProcessesAreFoundByTheirShortName) {
  const FixtureRoot root;
  root.WriteFile("/proc/12/comm", "agent one\n");
  root.WriteFile("/proc/13/comm", "");
  root.WriteFile("/proc/13x/comm", "decoy\n");
  root.WriteFile("/proc/self/comm", "decoy\n");
  root.MakeLink("/proc/12/exe", "/opt/a b (deleted)");
  root.Run([] {
    std::string name;
    std::string path;
    EXPECT_TRUE(CProcess::GetProcessInfo(12, name, path));
    EXPECT_EQ(name + "|" + path, "agent one|/opt/a b (deleted)");
    EXPECT_FALSE(CProcess::GetProcessInfo(13, name, path));
    EXPECT_EQ(name, "");
    EXPECT_FALSE(CProcess::get_proc_file(12, nullptr, name));
    EXPECT_FALSE(CProcess::GetProcessName(name, CProcess::kNone));
    uint32_t pid = 0;
    EXPECT_TRUE(CProcess::FindProcess(pid, "agent one"));
    EXPECT_EQ(pid, 12U);
    for (const char* unknown : {"agent", "decoy", static_cast<const char*>(nullptr)}) {
      EXPECT_FALSE(CProcess::FindProcess(pid, unknown));
      EXPECT_EQ(pid, CProcess::kNone);
    }
  });
}

TEST(Process, ExitCodeTellsHowTheCommandEnded) {
  const FixtureRoot root;
  root.WriteFile("/bad/tool", "", 0644);
  root.WriteFile("/good/tool", "test $# = 2 && test \"$1\" = \"'a\" && exit 7", 0755);  // no interpreter line
  root.WriteFile("/killed", "#!/bin/sh\nkill -9 $$\n", 0755);
  root.Run(
      [] {
        ::setenv("PATH", "/none:/bad:/good:/usr/bin", 1);
        const std::pair<const char*, Outcome> rows[] = {
            {"true", {true, 0}},
            {" \t false\n", {false, 1}},
            {"no-such-program", {false, 255}},
            {"", {false, 255}},
            {"/bad/tool", {false, 255}},
            {"tool 'a b'", {false, 7}},
            {"/killed", {false, CProcess::kNone}},
        };
        for (const auto& [command, expected] : rows) {
          EXPECT_EQ(Execute(command), expected) << command;
        }
        EXPECT_TRUE(CProcess::ExecuteCmd("true", nullptr, false, false));
        ::unsetenv("PATH");
        EXPECT_EQ(Execute("true"), (Outcome{true, 0}));
        ::signal(SIGCHLD, SIG_IGN);
        EXPECT_EQ(Execute("true"), (Outcome{false, CProcess::kNone}));
      },
      kCommands);
}

TEST(Process, AsynchronousCommandsAreWaitedForAndKilled) {
  const FixtureRoot root;
  root.Run(
      [] {
        uint32_t pid = 0;
        uint32_t exitCode = 0;
        ASSERT_TRUE(CProcess::execute_command("false", pid, exitCode, nullptr, false, true, false));
        EXPECT_EQ(exitCode, CProcess::kNone);
        EXPECT_FALSE(CProcess::WaitForExit(pid, exitCode, 0));
        EXPECT_EQ(exitCode, 1U);
        EXPECT_FALSE(CProcess::WaitForExit(pid, exitCode, 0));
        EXPECT_EQ(exitCode, CProcess::kNone);
        ASSERT_TRUE(CProcess::ExecuteCmdAsync("sleep 600", pid, nullptr, false, false));
        // What the system takes for "any child" and "everybody" must touch neither the child nor the caller.
        for (const uint32_t many : {0U, CProcess::kNone, 0U - static_cast<uint32_t>(::getpgrp())}) {
          EXPECT_FALSE(CProcess::TerminateProcess(many, 0));
          EXPECT_FALSE(CProcess::WaitForExit(many, exitCode, 0));
        }
        EXPECT_EQ(::kill(static_cast<pid_t>(pid), 0), 0);
        EXPECT_TRUE(CProcess::TerminateProcess(pid, 0));
        EXPECT_FALSE(CProcess::WaitForExit(pid, exitCode, 0));
        EXPECT_EQ(exitCode, CProcess::kNone);
        EXPECT_FALSE(CProcess::TerminateProcess(pid, 0));
        EXPECT_FALSE(CProcess::GetProcessHandleCount(pid, exitCode));
        EXPECT_EQ(exitCode, 1U);
      },
      kCommands);
}

TEST(Process, ChildGetsNoDescriptorUnlessItInherits) {
  const FixtureRoot root;
  root.Run(
      [] {
        for (const int fd : {3, 77, 900}) {
          ASSERT_EQ(::dup2(0, fd), fd);
        }
        ExpectInheritanceAsAskedFor();
        RefuseCloseRange();
        ExpectInheritanceAsAskedFor();
      },
      kCommands);
}

TEST(Process, ChildTakesTheSignalsThatTheCallerBlocks) {
  const FixtureRoot root;
  root.Run(
      [] {
        sigset_t all;
        ::sigfillset(&all);
        ::sigprocmask(SIG_SETMASK, &all, nullptr);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM}) {
          ::signal(signal, SIG_DFL);
          uint32_t pid = 0;
          ASSERT_TRUE(CProcess::ExecuteCmdAsync("sleep 600", pid, nullptr, false, false));
          ::kill(static_cast<pid_t>(pid), signal);
          int status = 0;
          ::waitpid(static_cast<pid_t>(pid), &status, 0);
          EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << signal;
        }
      },
      kCommands);
}

TEST(Process, DirectoryHoldsForTheCommandAlone) {
  const FixtureRoot root;
  root.MakeDirectory("/work/here");
  root.Run(
      [] {
        std::string current = "kept";
        EXPECT_TRUE(CProcess::SetCurrentDir("/work"));
        EXPECT_EQ(Execute("touch made", "here"), (Outcome{true, 0}));
        EXPECT_EQ(::access("/work/here/made", F_OK), 0);
        EXPECT_EQ(Execute("touch /ran", "nowhere"), (Outcome{false, CProcess::kNone}));
        EXPECT_EQ(Execute("touch /ran", ""), (Outcome{false, CProcess::kNone}));
        EXPECT_TRUE(CProcess::GetCurrentDir(current));
        EXPECT_EQ(current, "/work");
        EXPECT_EQ(Execute("mv /work /moved", "/"), (Outcome{false, 0}));  // no way back
        EXPECT_FALSE(CProcess::SetCurrentDir(""));
        EXPECT_FALSE(CProcess::SetCurrentDir(nullptr));
        EXPECT_TRUE(CProcess::SetCurrentDir("/moved/here"));
        EXPECT_EQ(::rmdir("/moved/here"), -1);
        std::remove("/moved/here/made");
        EXPECT_EQ(::rmdir("/moved/here"), 0);
        EXPECT_FALSE(CProcess::GetCurrentDir(current));
        EXPECT_EQ(current, "/work");
        EXPECT_EQ(Execute("touch /ran", "/"), (Outcome{false, CProcess::kNone}));
        EXPECT_NE(::access("/ran", F_OK), 0);
      },
      kCommands);
}

// The child of a process with threads must not need a lock that another thread holds at the moment of the fork.
TEST(Process, CommandsStartWhileOtherThreadsAllocate) {
  const FixtureRoot root;
  root.Run(
      [] {
        std::vector<std::jthread> threads;
        for (int number = 0; number < 2; ++number) {
          threads.emplace_back([](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
              const std::string block(static_cast<size_t>(std::rand() % 4000), 'x');
            }
          });
        }
        for (int run = 0; run < 50; ++run) {
          EXPECT_EQ(Execute("true"), (Outcome{true, 0}));
        }
      },
      kCommands);
}
