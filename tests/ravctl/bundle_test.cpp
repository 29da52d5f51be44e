// Bundles: made, redacted and read back.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <regex>

#include "ravctl/tool_machine.h"
#include "support/firmware_tables.h"

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
namespace fs = std::filesystem;

namespace {

using Arguments = std::vector<std::string>;

constexpr auto kNetwork = FixtureRoot::kNetwork;
constexpr uint32_t kEntryPoint = 0xF0100;
constexpr uint32_t kTable = 0x1F0000;

// What must not leave the machine.
constexpr const char* kSystemSerial = "SGH512XK7Q";
constexpr const char* kBoardSerial = "PFE77Z0012345";
constexpr const char* kAssetTag = "INV-0042-7";
constexpr const char* kMemorySerial = "3F1A09C7";
constexpr const char* kOemSecret = "svc4711tag";
constexpr const char* kUuidText = "01020304-0506-0708-090a-0b0c0d0e0f10";
constexpr const char* kMac = "a0:36:9f:12:34:56";
constexpr const char* kWwn = "0x5001438012345678";
constexpr const char* kServer = "fileserver7";
constexpr const char* kTraceIni = "/etc/norrow/QuennetSuite/TraceConfig/ravd_trace.ini";
constexpr const char* kUnfinishedIni = "/etc/norrow/QuennetSuite/TraceConfig/unfinished.ini";

std::string Smbios() {
  // As the firmware stores it: the first three fields turned round.
  const std::string uuid("\x04\x03\x02\x01\x06\x05\x08\x07\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10", 16);
  const std::string memory = std::string(0x17 - 4 + 1, '\0') + "\x01\x02";
  return SmbiosTable()
      .Add(1, std::string("\x01\x02\x03\x04", 4) + uuid + std::string(3, '\0'),
           {"Kestrel", "Perch 2", "1.0", kSystemSerial})
      .Add(2, std::string("\x01\x02\x00\x03\x04", 5), {"Kestrel", "Board", kBoardSerial, kAssetTag})
      .Add(11, "\x01", {kOemSecret})
      .Add(17, memory, {kMemorySerial, kAssetTag})
      .Add(0xD1, std::string("\x12\xa0\x36\x9f\x12\x34\x56", 7), {kOemSecret})
      .AddSlot({.id = 3, .bus = 0x18})
      .AddSlot({.id = 4, .bus = 0x00, .device = 1})
      .AddEnd()
      .Bytes();
}

// The server with firmware tables in sysfs and in memory, configuration, traces, a dead daemon and secrets everywhere.
class SecretMachine : public ToolRoot {
 public:
  SecretMachine() {
    ServerTree server;
    server.Add("0000:19:00.0", 0x10770001, 0x0C0400, "qla2xxx");
    server.AddFcHost("host7", "pci0000:17/0000:19:00.0", kWwn);
    server.AddInterface("enxa0369f123456", kMac, "../../../0000:17:00.0");
    server.Install(*this);
    const std::string table = Smbios();
    WriteFile("/sys/firmware/dmi/tables/DMI", table);
    WriteFile("/sys/firmware/dmi/tables/smbios_entry_point", EntryPoint64(kTable, static_cast<uint32_t>(table.size())));
    MakeSparseFile("/dev/mem", 0x200000);
    WriteAt("/dev/mem", kEntryPoint, EntryPoint32(kTable, static_cast<uint16_t>(table.size()), 8));
    WriteAt("/dev/mem", 0xF2000, IrqRoutingTable({{0x18, 0, 3}}));
    WriteAt("/dev/mem", 0xF4000, std::string("_SYSID_") + kSystemSerial);
    WriteAt("/dev/mem", kTable, table);
    WriteFile("/etc/fstab", std::string(kServer) +
                                ".corp.example:/export /mnt nfs rw 0 0\n10.20.30.44:/b /b nfs rw 0 0\n" +
                                "UUID=" + kUuidText + " / ext4 rw 0 1\n");
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
    Run([] { ASSERT_EQ(std::system("gzip -c /var/log/pelrix/log.ravd > /var/log/pelrix/log.old.gz"), 0); }, kUsr);
  }

  static std::string Registry() {
    return std::string("[HKEY_LOCAL_MACHINE]\nChassis=b=a0 36 9f 12 34 56 \nHost=s=") + kServer +
           "\nSerialNumber=s=ZX81-99001\nShelfSerial=s=PN 0031X77\nVersion=d=3172\n\n\n";
  }
  static std::string Trace() {
    std::string text;
    for (const std::string& line :
         {std::string("adapter mac=A0-36-9F-12-34-56 at ") + kServer + ".corp.example",
          std::string("serial ") + kSystemSerial + " and " + kBoardSerial +
              ", drive ZX81-99001, battery serial: QX 55190Z4",
          std::string("peer fe80::a236:9fff:fe12:3456, gateway 10.20.30.44:3172, version 127.0.0.1"),
          std::string("uuid ") + kUuidText +
              " wwn 50:01:43:80:12:34:56:78 at 0x00007f0011223344\n53 47 48 35 31 32 58 4B  "
              "SGH512XK\n37 51  7Q"}) {
      text += "2026-01-02 03:04:05.000 [0000ABCD]    10244 KB !ravd          " + line + "\n";
    }
    return text;
  }

  void Unpack(const std::string& bundle, const std::string& directory) const {
    MakeDirectory(directory);
    Run([&] { ASSERT_EQ(std::system(("tar -xSf " + bundle + " -C " + directory).c_str()), 0); }, kUsr);
  }
};

// The commands that a captured tree answers.
const std::vector<Arguments>& Commands() {
  static const std::vector<Arguments> commands = {{"inventory", "--no-headings"},
                                                  {"inventory", "adapters"},
                                                  {"inventory", "drives"},
                                                  {"pci"},
                                                  {"slots"},
                                                  {"smbios", "list"},
                                                  {"smbios", "show"},
                                                  {"smbios", "verify"},
                                                  {"trace", "show"},
                                                  {"trace", "verify"},
                                                  {"trace", "stats"},
                                                  {"trace", "config"},
                                                  {"daemon", "status"},
                                                  {"registry", "list"},
                                                  {"registry", "tree"},
                                                  {"registry", "verify"},
                                                  {"ini", "check", kTraceIni},
                                                  {"trace", "show", "old.gz"}};
  return commands;
}

nlohmann::json Answer(const ToolRoot& machine, Arguments arguments) {
  arguments.emplace_back("--json");
  if (arguments[1] == "show" && arguments[2] == "old.gz") arguments[2] = "/var/log/pelrix/log.old.gz";
  const ToolResult result = machine.Ravctl(arguments, {}, kNetwork);
  const nlohmann::json answer = nlohmann::json::parse(result.out, nullptr, false);
  EXPECT_FALSE(answer.is_discarded()) << arguments[0] << " " << arguments[1] << ": " << result.err;
  if (answer.is_object()) ExpectValid(answer);
  return {{"status", result.status}, {"data", answer.is_object() ? answer["data"] : nlohmann::json()}};
}

std::string Lower(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char letter) { return std::tolower(letter); });
  return text;
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
  const nlohmann::json made = machine.Json({"bundle", "--trace", "/b.tar.gz"})["data"];
  EXPECT_EQ(made["missing"].size(), 0U) << made["missing"];
  EXPECT_EQ(machine.Mode("/b.tar.gz") & 07777, 0600U);
  machine.Json({"bundle", "--trace", "/b.tar.zst"});
  machine.Unpack("/b.tar.gz", "/tree");
  const nlohmann::json manifest = nlohmann::json::parse(machine.ReadFile("/tree/manifest.json"));
  ExpectValid(manifest);
  EXPECT_THAT(machine.ReadFile("/tree/proc/77/environ"),
              AllOf(HasSubstr("QN_LOG_DEBUG_LEVEL=3"), Not(HasSubstr("password1"))));
  EXPECT_EQ(machine.ReadFile("/tree/dev/mem").substr(kTable, 100), Smbios().substr(0, 100));
  for (const Arguments& command : Commands()) {
    const nlohmann::json live = Answer(machine, command);
    for (const char* tree : {"/b.tar.gz", "/b.tar.zst", "/tree"}) {
      Arguments there = command;
      there.insert(there.end(), {"--sysroot", tree});
      EXPECT_EQ(Answer(machine, there), live) << tree << ": " << command.front() << " " << command.back();
    }
  }
}

TEST(Bundle, FirmwareInMemoryAnswersToo) {
  const SecretMachine machine;
  machine.Remove("/sys/firmware");
  machine.Json({"bundle", "/b.tar.gz"});
  const nlohmann::json live = Answer(machine, {"smbios", "show"});
  EXPECT_EQ(live["status"], 0);
  EXPECT_EQ(Answer(machine, {"smbios", "show", "--sysroot", "/b.tar.gz"}), live);
}

TEST(Bundle, NoSecretIsLeftInARedactedOne) {
  const SecretMachine machine;
  char host[256] = {};
  ASSERT_EQ(::gethostname(host, sizeof host - 1), 0);
  const std::string name = std::string(host) + ".corp.example";
  const bool hasName = std::string_view(host) != "localhost";
  if (hasName) machine.WriteFile("/etc/pelrix/test.ini", "[net]\nname = " + name + "\n");
  machine.Json({"bundle", "--trace", "--redact", "/b.tar.gz"});
  machine.Unpack("/b.tar.gz", "/tree");
  const std::string all = Lower(Everything(machine.HostPath("/tree")));
  for (const std::string& secret : std::vector<std::string>{kSystemSerial,
                                                            kBoardSerial,
                                                            kAssetTag,
                                                            kMemorySerial,
                                                            kOemSecret,
                                                            kUuidText,
                                                            kMac,
                                                            "a0369f123456",
                                                            "a0-36-9f-12-34-56",
                                                            "a0 36 9f 12 34 56",
                                                            std::string("\xa0\x36\x9f\x12\x34\x56"),
                                                            "5001438012345678",
                                                            "50:01:43:80:12:34:56:78",
                                                            kServer,
                                                            "corp.example",
                                                            "10.20.30.44",
                                                            "fe80::a236",
                                                            "zx81-99001",
                                                            "0031x77",
                                                            "55190z4",
                                                            "sgh512",
                                                            "53 47 48 35",
                                                            "37 51  7q",
                                                            std::string("\x04\x03\x02\x01\x06\x05\x08\x07"),
                                                            "password1"}) {
    EXPECT_EQ(all.find(Lower(secret)), std::string::npos) << secret;
  }
  EXPECT_EQ(all.find(Lower(name)), std::string::npos) << name;
  // What is no secret stays.
  EXPECT_THAT(all, AllOf(HasSubstr("version 127.0.0.1"), HasSubstr("0x00007f0011223344"), HasSubstr("perch 2"),
                         HasSubstr("version=d=3172")));
}

TEST(Bundle, TokensAreEqualThroughoutAndReadable) {
  const SecretMachine machine;
  machine.Json({"bundle", "--trace", "--redact", "/b.tar.gz"});
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
  EXPECT_EQ(table.size(), Smbios().size());
  EXPECT_EQ(machine.ReadFile("/tree/dev/mem").substr(kTable, table.size()), table);
  for (const Arguments& command : Commands()) {
    Arguments there = command;
    there.insert(there.end(), {"--sysroot", "/b.tar.gz"});
    EXPECT_EQ(Answer(machine, there)["status"], Answer(machine, command)["status"])
        << command.front() << " " << command.back();
  }
  const nlohmann::json slots = Answer(machine, {"slots", "--sysroot", "/b.tar.gz"});
  EXPECT_EQ(slots, Answer(machine, {"slots"}));
  // Another bundle has other tokens.
  machine.Json({"bundle", "--redact", "/c.tar.gz"});
  machine.Unpack("/c.tar.gz", "/other");
  EXPECT_FALSE(machine.Exists("/other/sys/class/net/enx" + bare));
}

TEST(Bundle, RefusesAndSaysWhatIsMissing) {
  struct Row {
    Arguments arguments;
    int status;
    const char* line;
  };
  const Row rows[] = {
      {{"bundle", "/old.tar.gz"},
       2,
       "ravctl: bundle: the file exists and is not overwritten: /old.tar.gz (choose another name)\n"},
      {{"bundle", "/new.zip"},
       2,
       "ravctl: bundle: the name does not tell the packing: /new.zip (end it in .tar.gz or .tar.zst)\n"},
      {{"bundle", "/none/new.tgz"},
       4,
       "ravctl: bundle: cannot create the bundle: /none/new.tgz: No such file or directory (check the path)\n"},
      {{"bundle"}, 2, "ravctl: OUT is required: bundle (see ravctl bundle --help)\n"},
  };
  const ToolRoot machine;
  machine.WriteFile("/old.tar.gz", "old");
  for (const Row& row : rows) {
    const ToolResult result = machine.Ravctl(row.arguments);
    EXPECT_EQ(result.status, row.status) << row.line;
    EXPECT_EQ(result.err, row.line);
  }
  EXPECT_EQ(machine.ReadFile("/old.tar.gz"), "old");
  // A memory device that ends too early.
  machine.WriteFile("/dev/mem", "short");
  const nlohmann::json answer = machine.Json({"bundle", "/new.tar.zst"});
  EXPECT_EQ(answer["data"]["missing"][0]["path"], "/dev/mem from 0xe0000");
  EXPECT_EQ(answer["warnings"][0]["what"], "not in the bundle");
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
  const auto worst = [&machine](const char* check, const std::string& tree) {
    Arguments arguments = {"doctor"};
    if (!tree.empty()) arguments.insert(arguments.end(), {"--sysroot", tree});
    std::string found;
    const nlohmann::json answer = machine.Json(arguments, 1);
    for (const nlohmann::json& row : answer["data"]) {
      if (row["check"] == check && row["severity"] != "ok" && found.empty()) {
        found = row["severity"].get<std::string>() + " " + row["place"].get<std::string>();
      }
    }
    return found;
  };
  EXPECT_EQ(worst("permissions", ""), "");
  EXPECT_EQ(worst("trace", ""), "");
  EXPECT_EQ(worst("registry", ""), "");
  machine.WriteFile("/etc/pelrix/registry", SecretMachine::Registry() + "more", 0666);
  machine.WriteFile(kUnfinishedIni, "[ravd]\nFileDebugLevel=5\n[broken\n");
  machine.WriteFile("/var/log/pelrix/log.ravd", SecretMachine::Trace() + "2026-01-02 03:04:06.000 [0000ABCD] cut");
  machine.WriteFile("/sys/firmware/dmi/tables/DMI", Smbios().substr(0, 60));
  EXPECT_EQ(worst("permissions", ""), "bad /etc/pelrix/registry");
  EXPECT_EQ(worst("registry", ""), "bad /etc/pelrix/registry:9");
  EXPECT_EQ(worst("ini", ""), std::string("bad ") + kUnfinishedIni + ":3");
  EXPECT_EQ(worst("trace config", ""), std::string("warning ") + kUnfinishedIni);
  EXPECT_EQ(worst("trace", ""), "bad /var/log/pelrix/log.ravd");
  EXPECT_THAT(worst("smbios", ""), HasSubstr("bad"));
  machine.Json({"bundle", "--trace", "/b.tar.gz"});
  for (const char* check : {"permissions", "registry", "ini", "trace config", "trace", "smbios", "daemon"})
    EXPECT_EQ(worst(check, "/b.tar.gz"), worst(check, "")) << check;
  EXPECT_THAT(worst("space", "/b.tar.gz"), HasSubstr("unknown"));
}
