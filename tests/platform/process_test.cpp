#include "platform/process.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include "support/fixture_root.h"

namespace {

constexpr unsigned int kCommands = FixtureRoot::kUsr | FixtureRoot::kProc;

using Outcome = std::pair<bool, uint32_t>;  // result and exit code

Outcome Execute(const std::string& command, const char* directory = nullptr, bool inheritHandles = false) {
  uint32_t pid = 1, exitCode = 1;
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

}  // namespace

using Process = RootedTest;

TEST_F(Process, FactsComeFromTheProcessDirectory) {
  root.WriteFile("/proc/7/status",
                 "Name:\tx VmRSS: 9\nVmPeak:\t 3 MB\nVmSize:  2097152 kB\nVmRSS:\t10244 kB\nVmLib:\t1 GB\nVmSwap: 5\n");
  root.WriteFile("/proc/8/status", "VmSize: 1 kB\nVmLib: 2 kB\nVmSwap:\n");
  root.WriteFile("/proc/7/comm", "agent one\n");
  root.MakeLink("/proc/7/exe", "/opt/a b (deleted)");
  root.WriteFile("/proc/8/comm", "");
  root.WriteFile("/proc/self/comm", "decoy\n");
  root.Run([] {
    uint64_t size = 0, peak = 1, swap = 1, fourth = 1, noLib = 1;
    CProcess::GetProcessMemorySpecificInfo(7, size, "VmRSS:", CProcess::kilobytes);
    EXPECT_EQ(size, 10244U);
    CProcess::GetProcessMemorySpecificInfo(7, size, "VmRSS", CProcess::kilobytes);
    CProcess::GetProcessMemorySpecificInfo(9, size, "VmRSS:", CProcess::bytes);
    EXPECT_EQ(size, 10U);
    CProcess::GetProcessMemorySpecificInfo(9, size, "VmRSS:", CProcess::unit{7});
    EXPECT_EQ(size, 0U);
    EXPECT_TRUE(CProcess::GetProcessMemoryInfo(7, size, peak, swap, fourth, noLib));
    EXPECT_EQ((std::vector{size, peak, swap, fourth, noLib}),
              (std::vector<uint64_t>{2ULL << 30, 3 << 20, 5, 0, 1 << 30}));
    EXPECT_FALSE(CProcess::GetProcessMemoryInfo(8, size, peak, swap, fourth, noLib));
    EXPECT_EQ((std::vector{size, peak, swap, fourth, noLib}), (std::vector<uint64_t>{1024, 0, 0, 0, 0}));
    std::string name, path;
    EXPECT_TRUE(CProcess::GetProcessInfo(7, name, path));
    EXPECT_EQ(name + "|" + path, "agent one|/opt/a b (deleted)");
    EXPECT_FALSE(CProcess::GetProcessInfo(8, name, path) || CProcess::get_proc_file(7, nullptr, name));
    EXPECT_EQ(name, "");
    uint32_t pid = 0;
    EXPECT_TRUE(CProcess::FindProcess(pid, "agent one") && pid == 7);
    EXPECT_FALSE(CProcess::FindProcess(pid, "decoy") || CProcess::FindProcess(pid, nullptr));
    EXPECT_EQ(pid, CProcess::kNone);
  });
}

TEST_F(Process, ExitCodeTellsHowTheCommandEnded) {
  root.WriteFile("/bad/tool", "", 0644);
  root.WriteFile("/good/tool", "test $# = 2 && test \"$1\" = \"'a\" && exit 7", 0755);  // no interpreter line
  root.WriteFile("/killed", "#!/bin/sh\nkill -9 $$\n", 0755);
  root.Run(kCommands, [] {
    ::setenv("PATH", "/none:/bad:/good:/usr/bin", 1);
    const std::pair<const char*, Outcome> rows[] = {{"true", {true, 0}},
                                                    {" \t false\n", {false, 1}},
                                                    {"no-such-program", {false, 255}},
                                                    {"", {false, 255}},
                                                    {"/bad/tool", {false, 255}},
                                                    {"tool 'a b'", {false, 7}},
                                                    {"/killed", {false, CProcess::kNone}}};
    for (const auto& [command, expected] : rows)
      EXPECT_EQ(Execute(command), expected) << command;
    ::unsetenv("PATH");
    EXPECT_TRUE(CProcess::ExecuteCmd("true", nullptr, false, false));
  });
}

TEST_F(Process, AsynchronousCommandsTakeSignalsAndAreWaitedFor) {
  root.Run(kCommands, [] {
    sigset_t all;
    ::sigfillset(&all);
    ::sigprocmask(SIG_SETMASK, &all, nullptr);
    uint32_t pid = 0, exitCode = 0;
    ASSERT_TRUE(CProcess::execute_command("false", pid, exitCode, nullptr, false, true, false));
    EXPECT_EQ(exitCode, CProcess::kNone);
    EXPECT_FALSE(CProcess::WaitForExit(pid, exitCode, 0) || exitCode != 1);
    EXPECT_FALSE(CProcess::WaitForExit(pid, exitCode, 0) || exitCode != CProcess::kNone);
    ::signal(SIGHUP, SIG_DFL);  // a suite under nohup would hand on that it is ignored
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM, SIGKILL}) {
      ASSERT_TRUE(CProcess::ExecuteCmdAsync("sleep 600", pid, nullptr, false, false));
      // What the system takes for "any child" and "everybody" must touch neither the child nor the caller.
      for (const uint32_t many : {0U, CProcess::kNone, 0U - static_cast<uint32_t>(::getpgrp())})
        EXPECT_FALSE(CProcess::TerminateProcess(many, 0) || CProcess::WaitForExit(many, exitCode, 0));
      EXPECT_TRUE(signal == SIGKILL ? CProcess::TerminateProcess(pid, 0)
                                    : ::kill(static_cast<pid_t>(pid), signal) == 0);
      int status = 0;
      ::waitpid(static_cast<pid_t>(pid), &status, 0);
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << signal;
    }
    EXPECT_FALSE(CProcess::TerminateProcess(pid, 0));
  });
}

TEST_F(Process, CommandThatNobodyKnowsLeavesNoZombie) {
  root.WriteFile("/piped", "#!/bin/sh\nkill -PIPE $$\n", 0755);
  root.Run(kCommands, [] {
    EXPECT_TRUE(CProcess::ExecuteCmdAsync("touch /ran", nullptr, false, false));
    while (::access("/ran", F_OK) != 0)
      std::this_thread::yield();
    EXPECT_TRUE(::waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD) << "a child is left";
    EXPECT_FALSE(CProcess::ExecuteCmdAsync("touch /ran", "/nowhere", false, false));
    ::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(Execute("/piped"), (Outcome{false, CProcess::kNone})) << "SIGPIPE stayed ignored";
  });
}

TEST_F(Process, ChildGetsNoDescriptorUnlessItInherits) {
  root.Run(kCommands, [] {
    const auto expectAsAskedFor = [](const char* fd, bool isInherited) {
      EXPECT_EQ(Execute(std::string("test -e /proc/self/fd/") + fd, nullptr, isInherited).first, isInherited) << fd;
    };
    for (const bool hasCloseRange : {true, false}) {
      if (!hasCloseRange) RefuseCloseRange();
      for (const char* fd : {"3", "77", "900"}) {
        ASSERT_GT(::dup2(0, std::atoi(fd)), 0);
        expectAsAskedFor(fd, false);
        expectAsAskedFor(fd, true);
      }
      EXPECT_TRUE(Execute("test -e /proc/self/fd/2").first);
    }
  });
}

TEST_F(Process, DirectoryHoldsForTheCommandAlone) {
  root.MakeDirectory("/work/here");
  root.WriteFile("/await", "#!/bin/sh\nuntil test -e signal; do :; done\n", 0755);
  root.Run(kCommands, [] {
    std::string current;
    EXPECT_TRUE(CProcess::SetCurrentDir("/work"));
    EXPECT_EQ(Execute("touch made", "here"), (Outcome{true, 0}));
    EXPECT_EQ(Execute("touch /ran", "nowhere"), (Outcome{false, CProcess::kNone}));
    EXPECT_TRUE(CProcess::GetCurrentDir(current) && current == "/work");
    EXPECT_EQ(Execute("mv /work /moved", "/"), (Outcome{true, 0}));
    // Meanwhile the process stays where it is: the command waits for what only a thread that stands there makes.
    std::thread other([] {
      while (std::rename("signal", "here/signal") != 0)
        std::this_thread::yield();
    });
    WriteWholeFile("/moved/signal", "");
    EXPECT_EQ(Execute("/await", "here"), (Outcome{true, 0}));
    other.join();
    EXPECT_TRUE(std::remove("here/signal") == 0);
    EXPECT_FALSE(CProcess::SetCurrentDir("") || CProcess::SetCurrentDir(nullptr));
    EXPECT_TRUE(CProcess::SetCurrentDir("/moved/here") && std::remove("made") == 0 && ::rmdir("/moved/here") == 0);
    EXPECT_FALSE(CProcess::GetCurrentDir(current));
    EXPECT_EQ(Execute("touch /ran", "/"), (Outcome{false, CProcess::kNone}));
    EXPECT_EQ(current, "/work");
  });
  EXPECT_FALSE(root.Exists("/ran"));
}
