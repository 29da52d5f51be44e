#include <sys/mount.h>
#include <utmp.h>

#include "daemon/command_line.h"
#include "daemon/run_level.h"
#include "daemon/smbus_probe.h"
#include "support/fake_ioctl.h"
#include "support/trace_capture.h"

using ::testing::Contains, ::testing::ElementsAre, ::testing::HasSubstr;

namespace {

// As the arguments behind the name of a program that means nothing.
template <class Function>
auto Call(Function* function, std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "-n");
  return function(static_cast<int>(arguments.size()), const_cast<char**>(arguments.data()));
}

const struct {
  const char* release;
  const char* file;
  int recordType, recordPid, expected;
  const char* traced;
} kRunLevels[] = {
    {"SLES12", "0", 0, 0, 0, "RAVD-MAIN: we are runing on OS \"SLES12\""},
    {"SLES12", "6\n", RUN_LVL, '0', 6, "RAVD-MAIN: OS shutdown reguired: RunLevel = 6 from /etc/pelrix/RunLevel"},
    {"OL7", " 6 x", 0, 0, 6, "RAVD-MAIN: we are runing on OS \"OL7\""},
    {"OL7", "3", 0, 0, -1, "RAVD-MAIN: OS shutdown reguired: RunLevel = 3 from /etc/pelrix/RunLevel"},
    {"RHEL7", "-1", 0, 0, -1, "RAVD-MAIN: OS shutdown reguired: RunLevel = -1 from /etc/pelrix/RunLevel"},
    {"RHEL7", "reboot", 0, 0, -1, ""},
    {"rhel7", "0", RUN_LVL, 256 * 'N' + '6', 6, "RAVD-MAIN: try to indentify runlevel on older OS"},
    {"", "0", BOOT_TIME, '6', -1, "RAVD-MAIN: cannot identify OS (from QN_NICKNAME) on which we are running"},
};

}  // namespace

using CommandLine = RootedTest;
using SmbusProbe = RootedTest;
using RunLevel = RootedTest;

TEST_F(CommandLine, OptionsAreExactAndTheLastRunModeWins) {
  RunTraced(root, 2, [](const TraceCapture& trace) {
    const _ExtensionModuleLoaderConfig config =
        Call(ParseCommandLine, {"-rescan", "-tessel", "-agentless", "-RESCAN", "-vantle2"});
    EXPECT_EQ(config.Flags, 1U);
    EXPECT_EQ(config.RunMode, RUNMODE_AGENTLESS);
    EXPECT_THAT(trace.Lines(), ElementsAre("RAVD-MAIN::ParseCommandLine   : RESCAN due to -rescan",
                                           "RAVD-MAIN::ParseCommandLine   : TESSEL mode due to -tessel",
                                           "RAVD-MAIN::ParseCommandLine   : Agentsless mode due to -agentless",
                                           "RAVD-MAIN: RUN MODE: 5"));
    EXPECT_EQ(Call(ParseCommandLine, {"-tessel-agentless"}).RunMode, RUNMODE_DORLAN);
    EXPECT_EQ(Call(ParseCommandLine, {"-vantle"}).RunMode, RUNMODE_VANTLE);
    EXPECT_EQ(Call(ParseCommandLine, {}).RunMode, RUNMODE_NORMAL);
  });
  EXPECT_TRUE(Call(IsForeground, {"-x", "-nodemon"}));
  EXPECT_TRUE(Call(IsForeground, {"-rescan", "-n"}));
  EXPECT_FALSE(Call(IsForeground, {"-nodemonx", "-nx", "n"}));
}

TEST_F(SmbusProbe, AnswerIsTracedFieldByField) {
  root.WriteFile("/dev/pci/smbus", "");
  RunTraced(root, 2, [](const TraceCapture& trace) {
    ::setenv("QN_SYSTEM", std::string(40, 's').c_str(), 1);
    ::setenv("QN_OS", "Linux %d", 1);
    uint32_t version = 0x00030D00;
    const FakeIoctl driver([&](const std::string& path, unsigned long request, void* argument) -> std::optional<int> {
      if (path != "/dev/pci/smbus" || request != 0xC00873FF) return std::nullopt;
      uint32_t header[8];
      std::memcpy(header, argument, sizeof header);
      EXPECT_EQ(std::vector(header, header + 3), (std::vector<uint32_t>{1, 0xFF, 1312}));
      char* buffer = nullptr;
      std::memcpy(&buffer, static_cast<char*>(argument) + 16, sizeof buffer);
      EXPECT_STREQ(buffer + 96, "RAVD");
      std::memcpy(buffer + 16, &version, 4);
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
    version = 0x00030C05;
    DiscoverSmbusDriverInfo();
    EXPECT_EQ(trace.Count("is less than smbus driver version"), 1) << "the same version is none to warn of";
  });
}

TEST_F(SmbusProbe, MissingOrRefusingDriverEndsInTheInfoLine) {
  for (const char* reason :
       {"cannot open /dev/pci/smbus (errno=2: No such file or directory)",
        "IOCTL_SMBUS_DRIVER_INFO (0xC00873FF) to /dev/pci/smbus failed (errno=25: Inappropriate ioctl for device)"}) {
    RunTraced(root, 2, [reason](const TraceCapture& trace) {
      DiscoverSmbusDriverInfo();
      EXPECT_THAT(
          trace.Lines(),
          ElementsAre(
              std::string("RAVD-MAIN::DiscoverSmbusDriverInfo: ") + reason,
              "RAVD-MAIN: INFO: smbus-driver is not available on this OS (But, don't worry about this, it might be OK on some OS systems!)"));
    });
    root.WriteFile("/dev/pci/smbus", "");
  }
}

// The file of the service scripts, or on older systems the login records.
TEST_F(RunLevel, IsThatOfTheFileOrOfTheLoginRecords) {
  for (const auto& row : kRunLevels) {
    utmp record{};
    record.ut_type = static_cast<short>(row.recordType);
    record.ut_pid = row.recordPid;
    root.WriteFile("/var/run/utmp", std::string(reinterpret_cast<const char*>(&record), sizeof record));
    root.WriteFile("/etc/pelrix/RunLevel", row.file);
    RunTraced(root, 1, [&row](const TraceCapture& trace) {
      ::setenv("QN_NICKNAME", row.release, 1);
      RememberRelease();
      ::setenv("QN_NICKNAME", "of a module", 1);
      EXPECT_EQ(DetermineRunLevel(), row.expected) << row.release << row.file;
      EXPECT_EQ(trace.Missing(row.traced), "");
      EXPECT_TRUE(trace.Has("RAVD-MAIN: Current RunLevel = " + std::to_string(row.expected)));
    });
  }
}

TEST_F(RunLevel, OlderSystemsAreAskedThroughTheCommand) {
  root.WriteFile("/own/runlevel", "#!/bin/sh\necho \"N 0\"\n", 0755);
  root.MakeDirectory("/machine");
  root.Run(FixtureRoot::kUsr, [] {
    // The commands of the machine without its /usr/bin/systemctl and /sbin.
    ASSERT_EQ(::mount("/usr", "/machine", nullptr, MS_MOVE, nullptr), 0);
    for (const std::string link : {"/bin", "/lib", "/lib64", "/sbin"}) {
      ::unlink(link.c_str());
      ASSERT_EQ(::symlink(link == "/sbin" ? "own" : ("machine" + link).c_str(), link.c_str()), 0);
    }
    EXPECT_EQ(DetermineRunLevel(), 0);
  });
}
