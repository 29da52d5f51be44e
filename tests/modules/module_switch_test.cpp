// The module switch in a real daemon, with modules of every fault.

#include <gmock/gmock.h>

#include "support/daemon_root.h"
#include "switch/module_interface.h"
#include "switch/module_thread.h"

using ::testing::HasSubstr, ::testing::Not;

TEST(ModuleThread, CallsThatReturnThrowOrDoNotComeBack) {
  using Result = ModuleThread::Result;
  constexpr uint32_t kLong = 600'000;
  std::mutex gate;
  std::atomic<int> late = 0;
  {
    ModuleThread thread;
    EXPECT_EQ(thread.Call([] { return true; }, kLong), Result::kDone);
    EXPECT_EQ(thread.Call([] { return false; }, kLong), Result::kRefused);
    EXPECT_EQ(thread.Call([]() -> bool { throw std::runtime_error("no disk"); }, kLong), Result::kThrew);
    EXPECT_EQ(thread.Reason(), "it threw: no disk");
    EXPECT_EQ(thread.Call([]() -> bool { throw 1; }, kLong), Result::kThrew);
    const std::lock_guard<std::mutex> lock(gate);
    const auto wait = [&gate] { return gate.lock(), gate.unlock(), true; };
    EXPECT_EQ(thread.Call(wait, 1, [&late] { ++late; }), Result::kLost);
    EXPECT_TRUE(thread.IsLost());
    EXPECT_EQ(thread.Call([] { return true; }, kLong), Result::kLost);
  }
  EXPECT_TRUE(WaitUntil([&late] { return late == 1; }));
}

#ifdef MODULE_SWITCH  // builds with sanitizers have none

namespace {

class ModuleSwitch : public ::testing::Test {
 protected:
  ModuleSwitch() : root(RAVD_BINARY, MODULE_SWITCH) {
    root.MakeDirectory(kModules);
    root.MakeDirectory("/run");
    root.WriteFile("/etc/pelrix/RunLevel", "6\n");
    // The library lies where the build has it.
    root.MakeDirectory(MODULE_LIBRARIES);
    for (const auto& file : std::filesystem::directory_iterator(MODULE_LIBRARIES))
      if (file.path().filename().string().starts_with("libravagent.so"))
        std::filesystem::copy(file, root.HostPath(file.path().string()));
  }

  // The module under that name, with that fault.
  void Add(const std::string& name, const char* fault = "") {
    std::filesystem::copy(BAD_MODULE, root.HostPath(kModules + name + ".so"));
    ::setenv(("BAD_" + name).c_str(), fault, 1);
  }

  void Run(const std::function<void()>& body) {
    root.Run([&] {
      SwitchTracingOn();
      StartDaemon();
      ASSERT_TRUE(WaitReady()) << Log();
      body();
      ::kill(PidOfDaemon(), SIGTERM);
      int status = 0;
      ASSERT_TRUE(WaitUntil([&] { return ::waitpid(-1, &status, WNOHANG) > 0; }));
      EXPECT_EQ(status, 0) << Log();
      RunCommand(
          {"/bin/sh", "-c", "zcat /var/log/pelrix/log.ravd_i.gz >/trace; cat /var/log/pelrix/log.ravd_a >>/trace"});
    });
    log = root.ReadFile("/trace");
  }

  static std::string States() { return TextOf(kModuleStates); }

  const std::string kModules = std::string(kLibraryDirectory) + "/modules/";
  DaemonRoot root;
  std::string log;
};

}  // namespace

TEST_F(ModuleSwitch, BadModulesAreNamedAndTheOthersGoOn) {
  Add("a_good");
  Add("b_throws", "throw");
  Add("c_throws_int", "throw-int");
  Add("d_refuses", "refuse");
  Add("e_hangs", "hang");
  Add("f_stops_slowly", "slow-stop");
  Add("g_throws_at_stop", "throw-stop");
  Add("h_throws_when_told", "throw-notify");
  Add("i_not_wanted");
  Add("z_good");
  root.WriteFile(kModules + "j_text.so", "no shared object");
  std::filesystem::copy("/usr/lib/x86_64-linux-gnu/libm.so.6", root.HostPath(kModules + "k_no_symbols.so"));
  std::filesystem::copy(FOREIGN_MODULE, root.HostPath(kModules + "l_foreign.so"));
  Add("m_writable");
  ::chmod(root.HostPath(kModules + "m_writable.so").c_str(), 0777);
  root.WriteFile(kModulesFile, "[e_hangs]\nStartMs=100\n[f_stops_slowly]\nStopMs=200\n[i_not_wanted]\nRun=0\n");
  Run([] {
    const std::string states = States();
    for (const char* part : {"[a_good]\nState=running\n", "[z_good]\nState=running\n", "[b_throws]\nState=failed\n",
                             "Reason=it threw: no disk\n", "[d_refuses]\nState=failed\n", "[e_hangs]\nState=lost\n",
                             "[k_no_symbols]\nState=failed\n", "BuildId=", "Pid="})
      EXPECT_THAT(states, HasSubstr(part));
    EXPECT_THAT(states, Not(HasSubstr("i_not_wanted")));
    // What came to life too late is stopped at once.
    EXPECT_TRUE(WaitUntil([] { return TextOf(kRing).find("e_hangs stops") != std::string::npos; }));
  });
  ExpectInOrder(log, {"ERROR! j_text is not loaded: ",
                      "ERROR! k_no_symbols is not loaded: it lacks ModuleStart",
                      "ERROR! l_foreign is not loaded: it was written for another module interface",
                      "ERROR! m_writable is not loaded: another user may write it",
                      "ModuleSwitch        : a_good started",
                      "ERROR! b_throws did not start: it threw: no disk",
                      "ERROR! c_throws_int did not start: it threw what",
                      "ERROR! d_refuses did not start",
                      "ERROR! e_hangs did not start: it did not return within 100 ms",
                      "ModuleSwitch        : f_stops_slowly started",
                      "ModuleSwitch        : z_good started",
                      "a_good is told 00020000 level -1",
                      "ERROR! h_throws_when_told takes no notification: it threw: no ear",
                      "z_good is told 00020000 level -1",
                      "a_good is told 00030000 level 6",
                      "ModuleSwitch        : z_good stopped",
                      "ModuleSwitch        : h_throws_when_told stopped",
                      "ERROR! g_throws_at_stop did not stop: it threw: no end",
                      "ERROR! f_stops_slowly does not stop: it did not return within 200 ms",
                      "ModuleSwitch        : a_good stopped",
                      "all modules stay in memory",
                      "## EXIT PROCESS RAVD ##"});
  EXPECT_FALSE(root.Exists(kModuleStates));
}

TEST_F(ModuleSwitch, GoodModulesAreUnloadedAndAThreadThatIsLeftKeepsItsCode) {
  Add("a_good");
  Run([] {});
  ExpectInOrder(log, {"a_good starts", "a_good stops", "ModuleSwitch        : Unload a_good"});
  EXPECT_THAT(log, Not(HasSubstr("stay")));
  Add("b_leaves", "leave-thread");
  Run([] {});
  ExpectInOrder(log, {"b_leaves stops", "all modules stay in memory", "## EXIT PROCESS RAVD ##"});
}

#endif
