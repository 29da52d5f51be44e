#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <utmp.h>

#include <cstring>

#include "daemon/build_info.h"
#include "daemon/command_line.h"
#include "daemon/run_level.h"
#include "daemon/smbus_probe.h"
#include "daemon/switch_api.h"
#include "support/fake_ioctl.h"
#include "support/fixture_root.h"
#include "support/trace_capture.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

_ExtensionModuleLoaderConfig Parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "ravd");
  return ParseCommandLine(static_cast<int>(arguments.size()), const_cast<char**>(arguments.data()));
}

bool Foreground(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "-n");
  return IsForeground(static_cast<int>(arguments.size()), const_cast<char**>(arguments.data()));
}

void WriteRunLevelRecord(const FixtureRoot& root, int type, int pid) {
  utmp record{};
  record.ut_type = static_cast<short>(type);
  record.ut_pid = pid;
  root.WriteFile("/var/run/utmp", std::string(reinterpret_cast<const char*>(&record), sizeof record));
}

}  // namespace

TEST(CommandLine, OptionsAreExactAndTheLastRunModeWins) {
  const FixtureRoot root;
  root.Run([] {
    const TraceCapture trace(2);
    _ExtensionModuleLoaderConfig config = Parse({"-rescan", "-tessel", "-agentless", "-RESCAN", "-vantle2"});
    EXPECT_EQ(config.Flags, 1U);
    EXPECT_EQ(config.RunMode, RUNMODE_AGENTLESS);
    EXPECT_THAT(trace.Lines(), ElementsAre("RAVD-MAIN::ParseCommandLine   : RESCAN due to -rescan",
                                           "RAVD-MAIN::ParseCommandLine   : TESSEL mode due to -tessel",
                                           "RAVD-MAIN::ParseCommandLine   : Agentsless mode due to -agentless",
                                           "RAVD-MAIN: RUN MODE: 5"));
    EXPECT_EQ(Parse({"-tessel-agentless"}).RunMode, RUNMODE_DORLAN);
    EXPECT_EQ(Parse({"-vantle"}).RunMode, RUNMODE_VANTLE);
    EXPECT_EQ(Parse({}).RunMode, RUNMODE_NORMAL);
  });
  EXPECT_TRUE(Foreground({"-x", "-nodemon"}));
  EXPECT_TRUE(Foreground({"-rescan", "-n"}));
  EXPECT_FALSE(Foreground({"-nodemonx", "-nx", "n"}));
}

TEST(SmbusProbe, AnswerIsTracedFieldByField) {
  const FixtureRoot root;
  root.WriteFile("/dev/pci/smbus", "");
  root.Run([] {
    const TraceCapture trace(2);
    ::setenv("QN_SYSTEM", std::string(40, 's').c_str(), 1);
    ::setenv("QN_OS", "Linux %d", 1);
    const FakeIoctl driver([](const std::string& path, unsigned long request, void* argument) -> std::optional<int> {
      if (path != "/dev/pci/smbus" || request != 0xC00873FF) return std::nullopt;
      uint32_t header[8];
      std::memcpy(header, argument, sizeof header);
      EXPECT_EQ(header[0], 1U);
      EXPECT_EQ(header[1], 0xFFU);
      EXPECT_EQ(header[2], 1312U);
      char* buffer = nullptr;
      std::memcpy(&buffer, static_cast<char*>(argument) + 16, sizeof buffer);
      EXPECT_STREQ(buffer + 96, "RAVD");
      const uint32_t newer = 0x00030D00;
      std::memcpy(buffer + 16, &newer, 4);
      buffer[49] = 1;
      std::memset(buffer + 128, 'n', 32);  // fills its field
      std::memcpy(buffer + 928, "all is well", 11);
      return 0;
    });
    DiscoverSmbusDriverInfo();
    const std::vector<std::string> lines = trace.Lines();
    ASSERT_EQ(lines.size(), 36U);
    EXPECT_EQ(lines[0], "RAVD-MAIN: WARNING: ravd version (0x00030C05) is less than smbus driver version (0x00030D00)");
    EXPECT_EQ(lines[1], "RAVD-MAIN::DiscoverSmbusDriverInfo: evaluating IOCTL_SMBUS_DRIVER_INFO (0xC00873FF)");
    EXPECT_THAT(lines[5], HasSubstr("pInOutBuffer                : 0x0x"));
    EXPECT_THAT(lines, Contains("smbus_IsBapiHwFound         : 0x00000001"));
    EXPECT_THAT(lines, Contains("smbus_Name                  : " + std::string(32, 'n')));
    EXPECT_THAT(lines, Contains("QN_SYSTEM                   : " + std::string(32, 's')));
    EXPECT_THAT(lines, Contains("QN_OS                       : Linux %d"));
    EXPECT_EQ(lines[35], "smbus_ErrorReturnString     : all is well");
  });
}

TEST(SmbusProbe, MissingOrRefusingDriverEndsInTheInfoLine) {
  static constexpr const char* kInfo =
      "RAVD-MAIN: INFO: smbus-driver is not available on this OS (But, don't worry about this, it might be OK on some OS systems!)";
  const FixtureRoot root;
  root.Run([] {
    const TraceCapture trace(2);
    DiscoverSmbusDriverInfo();
    EXPECT_THAT(
        trace.Lines(),
        ElementsAre(
            "RAVD-MAIN::DiscoverSmbusDriverInfo: cannot open /dev/pci/smbus (errno=2: No such file or directory)",
            kInfo));
  });
  root.WriteFile("/dev/pci/smbus", "");
  root.Run([] {
    const TraceCapture trace(2);
    DiscoverSmbusDriverInfo();
    EXPECT_THAT(
        trace.Lines(),
        ElementsAre(
            "RAVD-MAIN::DiscoverSmbusDriverInfo: IOCTL_SMBUS_DRIVER_INFO (0xC00873FF) to /dev/pci/smbus failed (errno=25: Inappropriate ioctl for device)",
            kInfo));
  });
}

TEST(RunLevel, FileOfTheServiceScripts) {
  const struct {
    const char* content;
    int expected;
  } rows[] = {{"0", 0}, {"6\n", 6}, {" 6 x", 6}, {"3", -1}, {"-1", -1}, {"reboot", -1}, {"", -1}};
  const FixtureRoot root;
  for (const auto& row : rows) {
    root.WriteFile("/etc/pelrix/RunLevel", row.content);
    root.Run([&row] {
      const TraceCapture trace(1);
      ::setenv("QN_NICKNAME", "SLES12", 1);
      RememberRelease();
      ::setenv("QN_NICKNAME", "of a module", 1);
      EXPECT_EQ(DetermineRunLevel(), row.expected) << row.content;
      EXPECT_TRUE(trace.Has("RAVD-MAIN: we are runing on OS \"SLES12\""));
      EXPECT_TRUE(trace.Has("RAVD-MAIN: Current RunLevel = " + std::to_string(row.expected)));
    });
  }
  root.WriteFile("/etc/pelrix/RunLevel", "3");
  root.Run([] {
    const TraceCapture trace(1);
    ::setenv("QN_NICKNAME", "OL7", 1);
    RememberRelease();
    DetermineRunLevel();
    EXPECT_TRUE(trace.Has("RAVD-MAIN: OS shutdown reguired: RunLevel = 3 from /etc/pelrix/RunLevel"));
  });
}

TEST(RunLevel, OlderSystemsAreAskedThroughTheLoginRecords) {
  const FixtureRoot root;
  WriteRunLevelRecord(root, RUN_LVL, 256 * 'N' + '6');
  root.Run([] {
    const TraceCapture trace(1);
    ::setenv("QN_NICKNAME", "rhel7", 1);
    RememberRelease();
    EXPECT_EQ(DetermineRunLevel(), 6);
    EXPECT_TRUE(trace.Has("RAVD-MAIN: try to indentify runlevel on older OS"));
  });
  WriteRunLevelRecord(root, BOOT_TIME, '6');
  root.Run([] {
    const TraceCapture trace(1);
    EXPECT_EQ(DetermineRunLevel(), -1);
    EXPECT_TRUE(trace.Has("RAVD-MAIN: cannot identify OS (from QN_NICKNAME) on which we are running"));
  });
}

TEST(RunLevel, OlderSystemsAreAskedThroughTheCommand) {
  const FixtureRoot root;
  root.WriteFile("/machine/sbin/runlevel", "#!/bin/sh\necho \"N 0\"\n", 0755);
  root.Run(
      [] {
        // The commands of the machine without its /usr/bin/systemctl and /sbin.
        ASSERT_EQ(::mkdir("/machine/usr", 0755), 0);
        ASSERT_EQ(::mount("/usr", "/machine/usr", nullptr, MS_MOVE, nullptr), 0);
        for (const char* name : {"bin", "lib", "lib64"}) {
          ::unlink((std::string("/") + name).c_str());
          ASSERT_EQ(::symlink((std::string("machine/usr/") + name).c_str(), (std::string("/") + name).c_str()), 0);
        }
        ::unlink("/sbin");
        ASSERT_EQ(::symlink("machine/sbin", "/sbin"), 0);
        EXPECT_EQ(DetermineRunLevel(), 0);
      },
      FixtureRoot::kUsr);
}

TEST(SwitchApi, MissingLibraryIsOneTraceLine) {
  const FixtureRoot root;
  root.Run([] {
    const TraceCapture trace(3);
    CSwitchApi api;
    EXPECT_FALSE(api.LoadSwitch());
    EXPECT_FALSE(api.LoadModules({1, 0}));
    EXPECT_FALSE(api.UnloadModules(0));
    api.Release();
    const std::vector<std::string> lines = trace.Lines();
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_THAT(lines[0], HasSubstr("LoadLibrary: ## ERROR:  libswitch.so: cannot open shared object file"));
    EXPECT_EQ(lines[1], "SWITCH API          : Loading modules, force rescan = 1");
    EXPECT_EQ(lines[2], "SWITCH API          : ## ERROR! Loading modules FAILED!");
    EXPECT_EQ(lines[3], "SWITCH API          : Unloading modules...");
    EXPECT_EQ(lines[4], "SWITCH API          : ## ERROR! Unloading modules FAILED!");
  });
}
