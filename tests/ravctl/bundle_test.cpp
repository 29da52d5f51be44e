// Bundles: made, redacted and read back.

#include <cctype>
#include <regex>

#include "ravctl/tool_machine.h"
#include "support/firmware_tables.h"

using ::testing::AllOf, ::testing::HasSubstr, ::testing::Not;
namespace fs = std::filesystem;

namespace {

constexpr auto kNetwork = FixtureRoot::kNetwork;
constexpr uint32_t kEntryPoint = 0xF0100;
constexpr uint32_t kTable = 0x1F0000;

constexpr const char* kTraceIni = "/etc/norrow/QuennetSuite/TraceConfig/ravd_trace.ini";
constexpr const char* kUnfinishedIni = "/etc/norrow/QuennetSuite/TraceConfig/unfinished.ini";

const std::string kSmbios = SecretSmbios().Bytes();

// The server with firmware tables in sysfs and in memory, configuration, traces, a dead daemon and secrets everywhere.
class SecretMachine : public ToolRoot {
 public:
  SecretMachine() {
    ServerTree server;
    server.Add("0000:19:00.0", 0x10770001, 0x0C0400, "qla2xxx");
    server.AddFcHost("host7", "pci0000:17/0000:19:00.0", "0x5001438012345678");
    server.AddInterface("enxa0369f123456", "a0:36:9f:12:34:56", "../../../0000:17:00.0");
    server.Install(*this);
    WriteFile("/sys/firmware/dmi/tables/DMI", kSmbios);
    WriteFile("/sys/firmware/dmi/tables/smbios_entry_point",
              EntryPoint64(kTable, static_cast<uint32_t>(kSmbios.size())));
    MakeSparseFile("/dev/mem", 0x200000);
    WriteAt("/dev/mem", kEntryPoint, EntryPoint32(kTable, static_cast<uint16_t>(kSmbios.size()), 8));
    WriteAt("/dev/mem", 0xF2000, IrqRoutingTable({{0x18, 0, 3}}));
    WriteAt("/dev/mem", 0xF4000, "_SYSID_SGH512XK7Q");
    WriteAt("/dev/mem", kTable, kSmbios);
    WriteFile("/etc/fstab",
              "fileserver7.corp.example:/export /mnt nfs rw 0 0\n10.20.30.44:/b /b nfs rw 0 0\n"
              "UUID=01020304-0506-0708-090a-0b0c0d0e0f10 / ext4 rw 0 1\n");
    WriteFile("/etc/pelrix/registry", Registry());
    WriteFile(kTraceIni, "[ravd]\nFileDebugLevel=4\n[EndOfFile]\n");
    WriteFile("/var/run/ravd.pid", "77\n");
    WriteFile("/proc/77/comm", "ravd\n");
    WriteFile("/proc/77/stat", "77 (ravd) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 360000 20\n");
    WriteFile("/proc/stat", "cpu  1 2 3 4\nbtime 1767300000\n");
    WriteFile("/proc/77/status", "VmRSS:\t  10244 kB\nThreads:\t3\n");
    WriteFile("/proc/77/environ", std::string("SECRET=password1\0QN_LOG_DEBUG_LEVEL=3\0", 38));
    MakeLink("/proc/77/exe", "/usr/sbin/ravd");
    WriteFile("/var/log/pelrix/log.ravd", Trace());
    WriteFile("/var/log/pelrix/crash-20261125T024523Z/log.ravd", Trace());
    WriteFile("/var/log/pelrix/crash-20261125T024523Z/exit", "result=core-dump\nsignal=SEGV\npid=4711\n");
    WriteFile("/etc/default/ravd", "QN_NICKNAME=fileserver7\n");
    WriteFile("/etc/os-release", "ID=debian\n");
    WriteFile("/proc/77/maps", "7f0000000000-7f0000001000 r-xp 00000000 08:01 4711   /opt/libx.so\n");
    WriteFile("/opt/libx.so", ReadWholeFile(EXAMPLE_SWITCH_LIBRARY));
    Run([] { ASSERT_EQ(std::system("gzip -c /var/log/pelrix/log.ravd > /var/log/pelrix/log.old.gz"), 0); }, kUsr);
  }

  static std::string Registry() {
    return "[HKEY_LOCAL_MACHINE]\nChassis=b=a0 36 9f 12 34 56 \nHost=s=fileserver7\nSerialNumber=s=ZX81-99001\n"
           "ShelfSerial=s=PN 0031X77\nVersion=d=3172\n\n\n";
  }
  static std::string Trace() {
    std::string text;
    for (const std::string line :
         {"adapter mac=A0-36-9F-12-34-56 at fileserver7.corp.example",
          "serial SGH512XK7Q and PFE77Z0012345, drive ZX81-99001, battery serial: QX 55190Z4",
          "peer fe80::a236:9fff:fe12:3456, gateway 10.20.30.44:3172, version 127.0.0.1",
          "uuid 01020304-0506-0708-090a-0b0c0d0e0f10 wwn 50:01:43:80:12:34:56:78 at 0x00007f0011223344\n"
          "53 47 48 35 31 32 58 4B  SGH512XK\n37 51  7Q"})
      text += "2026-01-02 03:04:05.000 [0000ABCD]    10244 KB !ravd          " + line + "\n";
    return text;
  }

  void Unpack(const std::string& bundle, const std::string& directory) const {
    MakeDirectory(directory);
    Run([&] { ASSERT_EQ(std::system(("tar -xSf " + bundle + " -C " + directory).c_str()), 0); }, kUsr);
  }
};

// The commands that a captured tree answers.
const CommandLine kCommands =
    "'inventory --no-headings' 'inventory adapters' 'inventory drives' pci slots 'smbios list' 'smbios show' "
    "'smbios verify' 'trace show' 'trace verify' 'trace stats' 'trace config' 'trace show /var/log/pelrix/log.old.gz' "
    "'daemon status' 'trace list' 'trace show --previous' 'registry list' 'registry tree' 'registry verify' "
    "'ini check /etc/norrow/QuennetSuite/TraceConfig/ravd_trace.ini'";

nlohmann::json Answer(const ToolRoot& machine, const CommandLine& words) {
  const ToolResult result = machine.Ravctl(words + "--json", {}, kNetwork);
  const nlohmann::json answer = nlohmann::json::parse(result.out, nullptr, false);
  EXPECT_TRUE(answer.is_object()) << ::testing::PrintToString(words) << result.err;
  ExpectValid(answer);
  return {{"status", result.status}, {"data", answer.is_object() ? answer["data"] : nlohmann::json()}};
}

// Everything that is in the tree: names, link targets and contents.
std::string Everything(const fs::path& tree) {
  std::string all;
  for (const auto& entry : fs::recursive_directory_iterator(tree)) {
    all += entry.path().lexically_relative(tree).string() + "\n";
    if (entry.is_symlink()) {
      all += fs::read_symlink(entry).string() + "\n";
    } else if (entry.is_regular_file() && entry.path().extension() == ".gz") {
      const fs::path text = entry.path().string() + ".text";
      EXPECT_EQ(std::system(("gzip -dc " + entry.path().string() + " > " + text.string()).c_str()), 0);
      all += ReadWholeFile(text);
    } else if (entry.is_regular_file()) {
      all += ReadWholeFile(entry.path());
    }
  }
  return all;
}

}  // namespace

TEST(Bundle, TheAnswersAreThoseOfTheMachine) {
  const SecretMachine machine;
  const nlohmann::json made = machine.Json("bundle --trace /b.tar.gz")["data"];
  EXPECT_EQ(made["missing"].size(), 0U) << made["missing"];
  EXPECT_EQ(machine.Mode("/b.tar.gz") & 07777, 0600U);
  machine.Json("bundle --trace /b.tar.zst");
  machine.Unpack("/b.tar.gz", "/tree");
  const nlohmann::json manifest = nlohmann::json::parse(machine.ReadFile("/tree/manifest.json"));
  ExpectValid(manifest);
  EXPECT_THAT(machine.ReadFile("/tree/proc/77/environ"),
              AllOf(HasSubstr("QN_LOG_DEBUG_LEVEL=3"), Not(HasSubstr("password1"))));
  EXPECT_EQ(machine.ReadFile("/tree/dev/mem").substr(kTable, 100), kSmbios.substr(0, 100));
  EXPECT_THAT(machine.ReadFile("/tree/ravctl/modules.txt"),
              ::testing::MatchesRegex("/opt/libx.so [0-9]+ [0-9a-f]{40}\n"));
  EXPECT_EQ(machine.ReadFile("/tree/etc/default/ravd") + machine.ReadFile("/tree/etc/os-release"),
            "QN_NICKNAME=fileserver7\nID=debian\n");
  for (const std::string& command : kCommands) {
    const nlohmann::json live = Answer(machine, command);
    EXPECT_EQ(Answer(machine, command + " --sysroot /tree"), live) << command;
    if (command != "inventory --no-headings" && command != "trace show") continue;
    for (const char* archive : {"/b.tar.gz", "/b.tar.zst"})
      EXPECT_EQ(Answer(machine, command + " --sysroot " + archive), live) << archive << ": " << command;
  }
}

TEST(Bundle, FirmwareInMemoryAnswersToo) {
  const SecretMachine machine;
  machine.Remove("/sys/firmware");
  machine.Json("bundle /b.tar.gz");
  const nlohmann::json live = Answer(machine, "smbios show");
  EXPECT_EQ(live["status"], 0);
  EXPECT_EQ(Answer(machine, "smbios show --sysroot /b.tar.gz"), live);
}

TEST(Bundle, NoSecretIsLeftInARedactedOne) {
  const SecretMachine machine;
  char host[256] = {};
  ASSERT_EQ(::gethostname(host, sizeof host - 1), 0);
  const std::string name = std::string(host) + ".corp.example";
  if (std::string_view(host) != "localhost") machine.WriteFile("/etc/pelrix/test.ini", "[net]\nname = " + name + "\n");
  machine.Json("bundle --trace --redact /b.tar.gz");
  machine.Unpack("/b.tar.gz", "/tree");
  const std::string all = Lower(Everything(machine.HostPath("/tree")));
  const CommandLine secrets =
      "SGH512XK7Q PFE77Z0012345 INV-0042-7 3F1A09C7 svc4711tag 01020304-0506-0708-090a-0b0c0d0e0f10 a0:36:9f:12:34:56 "
      "a0369f123456 a0-36-9f-12-34-56 'a0 36 9f 12 34 56' \xa0\x36\x9f\x12\x34\x56 5001438012345678 "
      "50:01:43:80:12:34:56:78 fileserver7 corp.example 10.20.30.44 fe80::a236 zx81-99001 0031x77 55190z4 sgh512 "
      "'53 47 48 35' '37 51  7q' \x04\x03\x02\x01\x06\x05\x08\x07 password1";
  for (const std::string& secret : secrets)
    EXPECT_EQ(all.find(Lower(secret)), std::string::npos) << secret;
  EXPECT_EQ(all.find(Lower(name)), std::string::npos) << name;
  // What is no secret stays.
  EXPECT_THAT(all, AllOf(HasSubstr("version 127.0.0.1"), HasSubstr("0x00007f0011223344"), HasSubstr("perch 2"),
                         HasSubstr("version=d=3172")));
}

TEST(Bundle, TokensAreEqualThroughoutAndReadable) {
  const SecretMachine machine;
  machine.Json("bundle --trace --redact /b.tar.gz");
  machine.Unpack("/b.tar.gz", "/tree");
  std::string bare;
  for (const auto& entry : fs::directory_iterator(machine.HostPath("/tree/sys/class/net"))) {
    const std::string name = entry.path().filename();
    if (name.starts_with("enx")) bare = name.substr(3);
  }
  ASSERT_TRUE(std::regex_match(bare, std::regex("02[0-9a-f]{10}"))) << bare;
  const std::string mac = machine.ReadFile("/tree/sys/class/net/enx" + bare + "/address").substr(0, 17);
  std::string digits = mac;
  std::erase(digits, ':');
  EXPECT_EQ(digits, bare);
  std::string dashed = mac;
  std::ranges::replace(dashed, ':', '-');
  std::string bytes = mac;
  std::ranges::replace(bytes, ':', ' ');
  const std::string trace = machine.ReadFile("/tree/var/log/pelrix/log.ravd");
  EXPECT_THAT(Lower(trace), HasSubstr("mac=" + dashed));
  EXPECT_EQ(trace.size(), SecretMachine::Trace().size());
  EXPECT_THAT(machine.ReadFile("/tree/etc/pelrix/registry"), HasSubstr("Chassis=b=" + bytes + " \n"));
  // The tables in sysfs and in memory are the same, and sound.
  const std::string table = machine.ReadFile("/tree/sys/firmware/dmi/tables/DMI");
  EXPECT_EQ(table.size(), kSmbios.size());
  EXPECT_EQ(machine.ReadFile("/tree/dev/mem").substr(kTable, table.size()), table);
  for (const std::string& command : kCommands)
    EXPECT_EQ(Answer(machine, command + " --sysroot /tree")["status"], Answer(machine, command)["status"]) << command;
  EXPECT_EQ(Answer(machine, "slots --sysroot /b.tar.gz"), Answer(machine, "slots"));
  // Another bundle has other tokens.
  machine.Json("bundle --redact /c.tar.gz");
  machine.Unpack("/c.tar.gz", "/other");
  EXPECT_FALSE(machine.Exists("/other/sys/class/net/enx" + bare));
}

TEST(Bundle, SaysWhatIsMissing) {
  const ToolRoot machine;
  // A memory device that ends too early.
  machine.WriteFile("/dev/mem", "short");
  const nlohmann::json answer = machine.Json("bundle /new.tar.zst");
  EXPECT_EQ(Members(answer, "data/missing/0/path warnings/0/what"), "/dev/mem from 0xe0000, not in the bundle");
}

TEST(Bundle, AnOrdinaryUserGetsWhatIsReadable) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to be somebody else";
  const ToolRoot machine;
  machine.MakeDirectory("/home", 01777);
  const std::string home = machine.HostPath("/home").string();
  const std::string command = "setpriv --reuid 65534 --regid 65534 --clear-groups " RAVCTL_BINARY " bundle " + home +
                              "/b.tar.gz --json > " + home + "/out 2> " + home + "/err";
  ASSERT_EQ(std::system(command.c_str()), 0) << machine.ReadFile("/home/err");
  const nlohmann::json answer = nlohmann::json::parse(machine.ReadFile("/home/out"));
  ExpectValid(answer);
  EXPECT_GT(answer["data"]["entries"], 0);
  EXPECT_THAT(machine.ReadFile("/home/err"),
              HasSubstr("/proc/iomem: its addresses are shown to root alone (run as root"));
}

TEST(Doctor, ChecksWritersTracesAndFirmware) {
  const SecretMachine machine;
  // The first finding of that check that is not good.
  int status = 0;
  const auto worst = [&](const std::string& check, const CommandLine& tree = "") {
    const nlohmann::json answer = machine.Json(CommandLine("doctor") + tree, status);
    for (const nlohmann::json& row : answer["data"])
      if (row["check"] == check && row["severity"] != "ok") return Members(row, "severity place");
    return std::string();
  };
  for (const char* check : {"permissions", "trace", "registry"})
    EXPECT_EQ(worst(check), "") << check;
  status = 1;
  machine.WriteFile("/etc/pelrix/registry", SecretMachine::Registry() + "more", 0666);
  machine.WriteFile(kUnfinishedIni, "[ravd]\nFileDebugLevel=5\n[broken\n");
  machine.WriteFile("/var/log/pelrix/log.ravd", SecretMachine::Trace() + "2026-01-02 03:04:06.000 [0000ABCD] cut");
  machine.WriteFile("/sys/firmware/dmi/tables/DMI", kSmbios.substr(0, 60));
  EXPECT_EQ(worst("permissions"), "bad, /etc/pelrix/registry");
  EXPECT_EQ(worst("registry"), "bad, /etc/pelrix/registry:9");
  EXPECT_EQ(worst("ini"), std::string("bad, ") + kUnfinishedIni + ":3");
  EXPECT_EQ(worst("trace config"), std::string("warning, ") + kUnfinishedIni);
  EXPECT_EQ(worst("trace"), "bad, /var/log/pelrix/log.ravd");
  EXPECT_THAT(worst("smbios"), HasSubstr("bad"));
  machine.Json("bundle --trace /b.tar.gz");
  for (const char* check : {"permissions", "registry", "ini", "trace config", "trace", "smbios", "daemon"})
    EXPECT_EQ(worst(check, "--sysroot /b.tar.gz"), worst(check)) << check;
  EXPECT_THAT(worst("space", "--sysroot /b.tar.gz"), HasSubstr("unknown"));
}
