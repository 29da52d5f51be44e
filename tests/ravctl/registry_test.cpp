// The registry commands on stores that are whole, damaged, hostile, or on a disk without room.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "platform/descriptor_io.h"
#include "platform/replace_file.h"
#include "platform/unique_fd.h"
#include "ravctl/base/error.h"
#include "ravctl/ravctl_runner.h"
#include "ravctl/registry/live_store.h"
#include "ravctl/registry/store_lock.h"
#include "ravctl/tool_machine.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

constexpr const char* kFile = "/etc/pelrix/registry";
constexpr const char* kOld = "/etc/pelrix/registry.old";
constexpr const char* kNew = "/etc/pelrix/registry.new";
constexpr const char* kDefault = "/etc/pelrix/registry.default";
constexpr const char* kLock = "/etc/pelrix/.registry.lock";

constexpr const char* kStore =
    "[HKEY_LOCAL_MACHINE]\n"
    "Path=s=/opt/x\n"
    "[Unit]\n"
    "Home=es=%HOME%/unit\n"
    "Key=b=0a ff 01 \n"
    "Port=d=3172\n"
    "Top=d=-1\n"
    "[Deep]\n"
    "Evil=s=a\x1b[31m\xff\n"
    "\n\n\n"
    "[HKEY_USERS]\n"
    "\n"
    "\n";
constexpr const char* kBackup = "[HKEY_LOCAL_MACHINE]\nPath=s=/opt/old\n\n\n";
constexpr const char* kUnit = "HKEY_LOCAL_MACHINE\\Unit";

class Registry : public ::testing::Test {
 protected:
  Registry() { machine.WriteFile(kFile, kStore); }

  // Names of the files in the registry's directory.
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(machine.HostPath("/etc/pelrix")))
      names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

  ToolRoot machine;
};

// "check@line" of every row of that severity.
std::vector<std::string> Findings(const nlohmann::json& answer, const std::string& severity) {
  std::vector<std::string> found;
  for (const nlohmann::json& row : answer["data"]["findings"])
    if (row["severity"] == severity) {
      const std::string place = row["place"];
      const size_t colon = place.find(':');
      found.push_back(row["check"].get<std::string>() + "@" +
                      (colon == std::string::npos ? "0" : place.substr(colon + 1)));
    }
  return found;
}

// The files that a start would load.
std::vector<std::string> Loaded(const nlohmann::json& answer) {
  std::vector<std::string> files;
  for (const nlohmann::json& file : answer["data"]["files"])
    if (file["loaded"] == true) files.push_back(file["file"]);
  return files;
}

}  // namespace

TEST_F(Registry, EveryTypeIsShown) {
  const nlohmann::json list = machine.Json({"registry", "list", "-r"});
  EXPECT_THAT(Values(list["data"], "name"), ElementsAre("HKEY_LOCAL_MACHINE", "Path", "Unit", "Home", "Key", "Port",
                                                        "Top", "Deep", "Evil", "HKEY_USERS"));
  EXPECT_THAT(Values(list["data"], "type"),
              ElementsAre("key", "string", "key", "expand", "binary", "number", "number", "key", "string", "key"));
  EXPECT_THAT(Values(list["data"], "value"),
              ElementsAre("1 values, 1 keys", "/opt/x", "4 values, 1 keys", "%HOME%/unit", "0a ff 01", "3172",
                          "4294967295", "1 values, 0 keys", "a\x1b[31m\\xff", "0 values, 0 keys"));
  EXPECT_EQ(machine.Json({"registry", "get", kUnit, "Port"})["data"][0]["number"], 3172);
  EXPECT_EQ(machine.Ravctl({"registry", "get", "--raw", "HKEY_LOCAL_MACHINE/Unit", "Key"}).out, "\x0a\xff\x01");
  EXPECT_EQ(machine.Ravctl({"registry", "get", "--raw", "--expand", kUnit, "Home"}, {"HOME=/root"}).out, "/root/unit");
  EXPECT_THAT(machine.Ravctl({"registry", "list", "HKEY_LOCAL_MACHINE\\Unit\\Deep"}).out, HasSubstr("a\\x1b[31m\\xff"));
  const nlohmann::json tree = machine.Json({"registry", "tree", "--values", "--depth", "1"});
  EXPECT_THAT(Values(tree["data"], "name"), ElementsAre("\\", "HKEY_LOCAL_MACHINE", "HKEY_USERS"));
  EXPECT_THAT(Values(tree["data"], "parent"), ElementsAre("-", "0", "0"));
}

TEST_F(Registry, FindWithNegation) {
  const auto find = [this](std::vector<std::string> words, int status = 0) {
    words.insert(words.begin(), {"registry", "find"});
    return Values(machine.Json(words, status)["data"], "name");
  };
  EXPECT_THAT(find({"unit"}), ElementsAre("Home"));
  EXPECT_THAT(find({"unit", "-i"}), ElementsAre("Unit", "Home"));
  EXPECT_THAT(find({"*o*", "--in", "name"}), ElementsAre("Home", "Port", "Top"));
  EXPECT_THAT(find({"o", "--in", "name", "--not", "*t"}), ElementsAre("Home", "Top"));
  EXPECT_THAT(find({"o", "--in", "name", "-v"}), ElementsAre("Path", "Key", "Evil"));
  EXPECT_THAT(find({"*", "--type", "number", "--below", kUnit}), ElementsAre("Port", "Top"));
  EXPECT_THAT(find({"nowhere"}, 1), IsEmpty());
}

TEST_F(Registry, SetAndDelWriteOnlyWhatChanges) {
  struct Row {
    std::vector<std::string> words;
    const char* line;  // that the store has afterwards
  };
  const Row rows[] = {
      {{"Port", "3173"}, "\nPort=d=3173\n"},
      {{"Port", "-5"}, "\nPort=d=-5\n"},
      {{"Port", "0xffffffff"}, "\nPort=d=-1\n"},
      {{"Key", "0AFF"}, "\nKey=b=0a ff \n"},
      {{"Home", "%HOME%"}, "\nHome=es=%HOME%\n"},
      {{"Port", "x", "--type", "string"}, "\nPort=s=x\n"},
      {{"New", "gr\xc3\xbc\xc3\x9f"}, "\nNew=s=gr\xc3\xbc\xc3\x9f\n"},
      {{"--", "Dash", "-x"}, "\nDash=s=-x\n"},
      {{"Empty", ""}, "\nEmpty=s=\n"},
  };
  for (const Row& row : rows) {
    const std::string before = machine.ReadFile(kFile);
    std::vector<std::string> words = {"registry", "set", kUnit};
    words.insert(words.end(), row.words.begin(), row.words.end());
    const ToolResult result = machine.Ravctl(words);
    EXPECT_EQ(result.status, 0) << row.line << result.err;
    EXPECT_THAT(machine.ReadFile(kFile), HasSubstr(row.line));
    EXPECT_EQ(machine.ReadFile(kOld), before);
    machine.Remove(kOld);
    EXPECT_EQ(machine.Ravctl(words).status, 0);
    EXPECT_FALSE(machine.Exists(kOld)) << "written without a change: " << row.line;
  }
  const nlohmann::json dry = machine.Json({"registry", "del", "-r", kUnit, "--dry-run"});
  EXPECT_EQ(dry["data"]["written"], false);
  EXPECT_THAT(Values(dry["data"]["changes"], "change"), ::testing::Each("removed"));
  EXPECT_FALSE(machine.Exists(kOld));
  EXPECT_EQ(machine.Json({"registry", "del", kUnit, "Port"})["data"]["changes"][0]["old_value"], "x");
  EXPECT_EQ(machine.Json({"registry", "set", "HKEY_USERS/A/B", "N", "1", "--type", "number"})["data"]["written"], true);
  EXPECT_EQ(machine.Ravctl({"registry", "del", "-r", kUnit}).status, 0);
  EXPECT_EQ(machine.ReadFile(kFile), "[HKEY_LOCAL_MACHINE]\nPath=s=/opt/x\n\n[HKEY_USERS]\n[A]\n[B]\nN=d=1\n\n\n\n\n");
  EXPECT_EQ(machine.Mode(kFile) & 07777U, 0644U);
}

TEST_F(Registry, BadInputsAreRefusedInOneLine) {
  machine.WriteFile("/bad.json", "{\"schema\":\"ravctl/registry-export\",\"version\":1,\"data\":{\"keys\":[7]}}");
  machine.WriteFile("/cut.json", "{\"schema\":\"ravctl/regis");
  machine.WriteFile("/newline.json",
                    "{\"schema\":\"ravctl/registry-export\",\"version\":1,\"data\":{\"keys\":[{\"path\":[\"A\"],"
                    "\"encoding\":\"text\",\"values\":[{\"name\":\"good\",\"type\":\"string\",\"value\":\"1\","
                    "\"encoding\":\"text\"},{\"name\":\"n\",\"type\":\"string\",\"value\":\"1\\n[x]\","
                    "\"encoding\":\"text\"}]}]}}");
  struct Row {
    std::vector<std::string> words;
    int status;
    const char* line;
  };
  const std::string longText(1100, 'x');
  const Row rows[] = {
      {{"get", kUnit, "Prot"}, 1, "get: there is no such value: HKEY_LOCAL_MACHINE\\Unit: Prot (did you mean Port?)"},
      {{"list", "HKEY_LOCAL_MACHINE\\Unti\\x"},
       1,
       "list: there is no such key: HKEY_LOCAL_MACHINE\\Unti (did you mean Unit?)"},
      {{"list", "A\\\\B"}, 2, "list: a key of the path has no name: A\\\\B (separate the names by one backslash)"},
      {{"get", kUnit, "Port", "--raw", "--json"}, 2, "get: --raw gives bytes, not JSON"},
      {{"set", kUnit, "Port", "12x"}, 2, "set: it is no value of type number: 12x (give a number from"},
      {{"set", kUnit, "Port", "4294967296"}, 2, "set: it is no value of type number"},
      {{"set", kUnit, "Key", "0a f"}, 2, "set: it is no value of type binary"},
      {{"set", kUnit, "a=b", "x"}, 2, "set: the registry cannot keep a value's name with an equals sign"},
      {{"set", kUnit, "[a", "x\n[y]"}, 2, "set: the registry cannot keep a text with a newline"},
      {{"set", kUnit, "Long", longText}, 2, "set: the registry cannot keep a line of 1108 bytes, where 1023 fit"},
      {{"set", "A]B", "x", "y"}, 2, "set: the registry cannot keep a key's name with a closing bracket"},
      {{"set", "HKEY_LOCAL_MACHINE", "Unit", "x"}, 2, "set: a key has that name"},
      {{"set", "HKEY_LOCAL_MACHINE\\Path\\x", "y", "z"}, 2, "set: a value stands where a key is wanted"},
      {{"set", kUnit, "x", "y", "--type", "word"}, 2, "--type: word not in"},
      {{"del", kUnit}, 2, "del: the key is not empty: HKEY_LOCAL_MACHINE\\Unit (give -r for all that is below it)"},
      {{"del", "\\", "-r"}, 2, "del: the root cannot be deleted"},
      {{"del", "-r", "HKEY_LOCAL_MACHINE"}, 2, "del: a registry without any value is not loaded"},
      {{"export", "--output", kFile}, 2, "export: the file exists and is not overwritten: /etc/pelrix/registry"},
      {{"export", "--output", "/no/x"}, 4, "export: cannot create the file: /no/x: No such file or directory"},
      {{"import", "/none"}, 4, "import: cannot read: /none: No such file or directory (check the path)"},
      {{"import", "/cut.json"},
       5,
       "import: the export cannot be used: it is no JSON at byte 24: /cut.json (export it again)"},
      {{"import", "/bad.json"}, 5, "import: the export cannot be used: \"encoding\" is missing"},
      {{"import", "/newline.json"}, 2, "import: the registry cannot keep a text with a newline: A: n"},
      {{"import", "/ravctl", "--merge", "--replace"}, 2, "--"},
      {{"diff", "live", "/none"}, 4, "diff: cannot read: /none"},
      {{"verify", "/none"}, 4, "verify: cannot read: /none"},
      {{"verify", "/etc"}, 4, "verify: cannot read: /etc"},
  };
  for (const Row& row : rows) {
    std::vector<std::string> words = {"registry"};
    words.insert(words.end(), row.words.begin(), row.words.end());
    const ToolResult result = machine.Ravctl(words);
    EXPECT_EQ(result.status, row.status) << row.line << "\n" << result.err;
    EXPECT_THAT(result.err, HasSubstr(row.line));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(result.out.empty(), words.back() != "--json") << row.line;
  }
  EXPECT_EQ(machine.ReadFile(kFile), kStore);
  EXPECT_THAT(Files(), ElementsAre("registry"));
}

TEST_F(Registry, ExportsComeBack) {
  for (const char* form : {"json", "store"}) {
    const std::string file = std::string("/export.") + form;
    EXPECT_EQ(machine.Ravctl({"registry", "export", "--format", form, "--output", file}).status, 0);
    EXPECT_EQ(machine.Mode(file) & 07777U, 0600U);
    EXPECT_EQ(machine.Ravctl({"registry", "export", "--format", form}).out, machine.ReadFile(file));
    EXPECT_THAT(machine.Json({"registry", "diff", "live", file})["data"], IsEmpty());
    machine.WriteFile(kFile, kBackup);
    const nlohmann::json dry = machine.Json({"registry", "import", file, "--dry-run"});
    EXPECT_EQ(dry["data"]["written"], false);
    EXPECT_EQ(machine.ReadFile(kFile), kBackup);
    EXPECT_EQ(machine.Json({"registry", "import", file})["data"]["changes"], dry["data"]["changes"]);
    EXPECT_EQ(machine.ReadFile(kFile), kStore) << form;
  }
  EXPECT_EQ(machine.ReadFile("/export.store"), kStore);
  ExpectValid(nlohmann::json::parse(machine.ReadFile("/export.json")));
  machine.Json({"registry", "export", kUnit});

  EXPECT_EQ(machine.Ravctl({"registry", "set", "HKEY_USERS", "Own", "1"}).status, 0);
  EXPECT_THAT(Values(machine.Json({"registry", "diff", "/export.json", "live"}, 1)["data"], "name"),
              ElementsAre("Own"));
  EXPECT_EQ(machine.Json({"registry", "import", "/export.json"})["data"]["written"], false);
  const nlohmann::json replaced = machine.Json({"registry", "import", "/export.json", "--replace"});
  EXPECT_THAT(Values(replaced["data"]["changes"], "change"), ElementsAre("removed"));
  EXPECT_EQ(machine.ReadFile(kFile), kStore);
}

TEST_F(Registry, ANameThatBeginsWithABraceIsNoJson) {
  for (const char* text : {"{x}=s=1\n\n", " {=s=1\n\n", "{\"a\":2=d=7\n\n"}) {
    machine.WriteFile("/store", text);
    EXPECT_EQ(machine.Json({"registry", "diff", "/store", "live"}, 1)["data"].size(), 11U) << text;
    EXPECT_EQ(machine.Ravctl({"registry", "import", "/store", "--replace"}).status, 0) << text;
    EXPECT_EQ(machine.ReadFile(kFile), text);
    machine.WriteFile(kFile, kStore);
    EXPECT_EQ(machine.Ravctl({"registry", "recover", "--from", "/store"}).status, 0) << text;
    EXPECT_EQ(machine.ReadFile(kFile), text);
    machine.WriteFile(kFile, kStore);
  }
}

TEST_F(Registry, VerifyTellsEveryLoss) {
  EXPECT_THAT(Findings(machine.Json({"registry", "verify"}), "bad"), IsEmpty());
  struct Row {
    std::string text;
    std::vector<std::string> damage;
    std::vector<std::string> notes;
  };
  const std::string longLine = "L=s=" + std::string(1100, 'x');
  const Row rows[] = {
      {"", {"empty@0"}, {"not whole@0"}},
      {"\n", {"no-value@0"}, {"not whole@0"}},
      {"A=s=1", {"cut-end@1", "cut-end@1"}, {"not whole@0"}},
      {"[K]\nA=s=1\n\n", {"cut-end@3"}, {"not whole@0"}},
      {"A=s=1\n\nB=s=2\n", {"after-end@3"}, {"not whole@0"}},
      {"A=s=1\nB=q=2\nC\n\n", {"no-marker@2", "no-marker@3"}, {"not whole@0"}},
      {"A=d=x\nB=d=12x\nC=d=99999999999\nD=d=+07\nE=d=4294967295\n\n",
       {"bad-number@1", "bad-number@2", "bad-number@3"},
       {"not whole@0", "spelling@4", "spelling@5"}},
      {"A=b=0a f\nB=b=0a zz\nC=b=0A FF \nD=b=100 \n\n",
       {"bad-bytes@1", "bad-bytes@2", "bad-bytes@4"},
       {"not whole@0", "spelling@3"}},
      {"A=s=1\nA=d=1\n[A]\n\n\n", {"twice@2", "twice@3"}, {"not whole@0"}},
      {std::string("A=s=1\0x\nB=s=\r\n\n", 15), {"zero-byte@1"}, {"not whole@0", "carriage-return@2"}},
      {longLine + "\nB=s=1\n\n", {"over-long@1", "no-marker@1"}, {"not whole@0"}},
      {"[K]rest\nA=s=1\n\n\n", {"key-rest@1"}, {"not whole@0"}},
      {"A=s=\xff\x1b\n[a\\b]\n\n\n", {}, {"backslash@2"}},
  };
  for (const Row& row : rows) {
    machine.WriteFile("/file", row.text);
    const nlohmann::json answer = machine.Json({"registry", "verify", "/file"}, row.damage.empty() ? 0 : 5);
    EXPECT_EQ(Findings(answer, "bad"), row.damage) << row.text;
    EXPECT_EQ(Findings(answer, "note"), row.notes) << row.text;
  }
  EXPECT_EQ(machine.ReadFile(kFile), kStore);
}

TEST_F(Registry, EveryCutIsFoundAndRecovered) {
  const std::string whole = kStore;
  for (size_t length = 0; length < whole.size(); length += 1 + length / (kSanitized ? 1 : 4)) {
    ToolRoot root;
    root.WriteFile(kFile, whole.substr(0, length));
    root.WriteFile(kOld, kBackup);
    root.WriteFile(kNew, "[HKEY_LOCAL_");
    const bool hasValue = length > whole.find("Path=s=") + 6;
    const nlohmann::json answer = root.Json({"registry", "verify"}, 5);
    EXPECT_THAT(Loaded(answer), ElementsAre(hasValue ? kFile : kOld)) << length;
    EXPECT_EQ(root.Ravctl({"registry", "set", "HKEY_USERS", "x", "y"}).status, 5) << length;
    EXPECT_EQ(root.ReadFile(kFile), whole.substr(0, length));

    const nlohmann::json recovered = root.Json({"registry", "recover"});
    EXPECT_EQ(recovered["data"]["from"], kOld);
    EXPECT_EQ(root.ReadFile(kFile), kBackup) << length;
    ASSERT_EQ(recovered["data"]["copies"].size(), 3U);
    for (const nlohmann::json& copy : recovered["data"]["copies"]) {
      const std::string expected = copy["file"] == kFile  ? whole.substr(0, length)
                                   : copy["file"] == kOld ? kBackup
                                                          : "[HKEY_LOCAL_";
      EXPECT_EQ(root.ReadFile(copy["copy"].get<std::string>()), expected) << copy;
    }
    root.Remove(kOld);
    root.Json({"registry", "verify"});
    EXPECT_EQ(root.Json({"registry", "recover"})["data"]["recovered"], false);
  }
}

TEST_F(Registry, RecoverTakesTheBestFile) {
  struct Row {
    const char* registry;
    const char* old;
    const char* fresh;
    const char* shipped;
    const char* best;
    int loads;  // 0 registry, 1 old, 2 default
  };
  const char* damaged = "[A]\nx=s=1\ny=s=2\n";
  const Row rows[] = {
      {nullptr, kBackup, kStore, kBackup, kNew, 1},    // the save had ended, all but the renames
      {damaged, nullptr, "x=s=1", kBackup, kFile, 0},  // most values
      {"", nullptr, nullptr, kBackup, kDefault, 2},    // nothing else is left
      {"x=s=1", damaged, nullptr, kBackup, kOld, 0},
  };
  constexpr const char* order[] = {kFile, kOld, kDefault};
  for (const Row& row : rows) {
    const ToolRoot root;
    root.MakeDirectory("/etc/pelrix");
    for (const auto& [path, text] : {std::pair{kFile, row.registry}, std::pair{kOld, row.old},
                                     std::pair{kNew, row.fresh}, std::pair{kDefault, row.shipped}})
      if (text != nullptr) root.WriteFile(path, text);
    EXPECT_THAT(Loaded(root.Json({"registry", "verify"}, row.registry == nullptr ? 0 : 5)),
                ElementsAre(order[row.loads]));
    EXPECT_EQ(root.Json({"registry", "recover", "--dry-run"})["data"]["from"], row.best);
    EXPECT_EQ(root.Exists(kFile), row.registry != nullptr);
    EXPECT_EQ(root.Json({"registry", "recover"})["data"]["recovered"], true);
    root.Json({"registry", "verify", kFile});
  }
  const nlohmann::json back = machine.Json({"registry", "recover", "--from", kFile});
  EXPECT_EQ(back["data"]["recovered"], false);
  machine.WriteFile("/damaged", "[A]\nL=s=" + std::string(1100, 'x') + "\nB=s=1\n");
  const ToolResult lossy = machine.Ravctl({"registry", "recover", "--from", "/damaged"});
  EXPECT_EQ(lossy.status, 2) << lossy.err;
  EXPECT_EQ(machine.ReadFile(kFile), kStore);
}

TEST_F(Registry, NoStoreAndAnUnusableOne) {
  machine.Remove(kFile);
  for (const char* command : {"list", "verify", "recover"}) {
    const ToolResult result = machine.Ravctl({"registry", command});
    EXPECT_EQ(result.status, 4) << command;
    EXPECT_THAT(result.err, HasSubstr("there is no registry: /etc/pelrix/registry: No such file")) << command;
  }
  // A store may begin with a value that is set.
  EXPECT_EQ(machine.Ravctl({"registry", "set", "HKEY_USERS", "a", "b"}).status, 0);
  EXPECT_EQ(machine.ReadFile(kFile), "[HKEY_USERS]\na=s=b\n\n\n");
  machine.WriteFile(kFile, "nothing\n");
  EXPECT_EQ(machine.Ravctl({"registry", "list"}).status, 5);
  EXPECT_EQ(machine.Ravctl({"registry", "set", "HKEY_USERS", "a", "c"}).status, 5);
  EXPECT_EQ(machine.Ravctl({"registry", "set", "HKEY_USERS", "a", "c", "--force"}).status, 0);
  // The backup answers, and that is said.
  machine.WriteFile(kFile, "");
  machine.WriteFile(kOld, kBackup);
  const nlohmann::json list = machine.Json({"registry", "get", "HKEY_LOCAL_MACHINE", "Path"});
  EXPECT_EQ(list["data"][0]["value"], "/opt/old");
  EXPECT_EQ(list["warnings"][0]["where"], kOld);
  // A tree too deep for its file to be meant.
  std::string deep;
  for (int level = 0; level < 100000; ++level)
    deep += "[k]\n";
  machine.WriteFile(kFile, deep + "v=s=1\n");
  EXPECT_EQ(machine.Ravctl({"registry", "list"}).status, 5);
  EXPECT_EQ(machine.Ravctl({"registry", "verify"}).status, 5);
}

TEST_F(Registry, AFullDiskLeavesTheOldStore) {
  // As much room as the store takes, and nothing for a second one.
  std::string large = "[HKEY_LOCAL_MACHINE]\n";
  for (int value = 0; value < 20000; ++value)
    large += "Value" + std::to_string(value) + "=s=text\n";
  large += "\n\n";
  machine.WriteFile("/large", large);
  machine.Run(
      [&] {
        ASSERT_EQ(::mount("none", "/etc/pelrix", "tmpfs", 0, "size=512k"), 0);
        const auto run = [](const std::vector<std::string>& words) {
          int status = 0;
          EXPECT_GT(::waitpid(StartRavctl(words, "/out"), &status, 0), 0);
          return WEXITSTATUS(status);
        };
        std::filesystem::copy_file("/large", kFile);
        EXPECT_EQ(run({"registry", "set", "HKEY_LOCAL_MACHINE", "Value1", "other"}), 4);
        EXPECT_THAT(ReadWholeFile("/out.err"), HasSubstr("set: the registry could not be saved, it is as it was: "
                                                         "/etc/pelrix: No space left on device"));
        EXPECT_EQ(run({"registry", "recover", "--from", "/small"}), 4);
        EXPECT_THAT(ReadWholeFile("/out.err"), HasSubstr("/small"));
        std::ofstream("/small") << kBackup;
        EXPECT_EQ(run({"registry", "recover", "--from", "/small"}), 4);
        EXPECT_THAT(ReadWholeFile("/out.err"), HasSubstr("recover: cannot make a copy, nothing was replaced: "));
        EXPECT_EQ(ReadWholeFile(kFile), large);
        size_t files = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/etc/pelrix"))
          ++files;
        EXPECT_EQ(files, 1U) << "something was left behind";
        ASSERT_EQ(::mount(nullptr, "/etc/pelrix", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
        EXPECT_EQ(run({"registry", "del", "HKEY_LOCAL_MACHINE", "Value1"}), 4);
        EXPECT_THAT(ReadWholeFile("/out.err"), HasSubstr("Read-only file system"));
      },
      FixtureRoot::kUsr);
}

TEST_F(Registry, ARunningDaemonIsWarnedOf) {
  std::filesystem::copy_file("/bin/sleep", machine.HostPath("/ravd"));
  machine.Run(
      [] {
        const pid_t daemon = ::fork();
        if (daemon == 0) {
          ::execl("/ravd", "/ravd", "60", nullptr);
          ::_exit(127);
        }
        std::filesystem::create_directories("/var/run");
        std::ofstream("/var/run/ravd.pid") << daemon << "\n";
        ::usleep(100000);
        int status = 0;
        ::waitpid(StartRavctl({"registry", "set", kUnit, "Port", "1"}, "/out"), &status, 0);
        EXPECT_EQ(WEXITSTATUS(status), 0);
        EXPECT_THAT(ReadWholeFile("/out.err"), HasSubstr("the daemon runs"));
        ::kill(daemon, SIGKILL);
        ::waitpid(daemon, nullptr, 0);
      },
      FixtureRoot::kUsr | FixtureRoot::kProc);
}

TEST_F(Registry, AnotherMachineAnswersTheSame) {
  ToolRoot other;
  other.WriteFile("/tree/etc/pelrix/registry", kStore);
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"registry", "list", "-r"}, {"registry", "verify", "-o", "file,line,finding,detail"}}) {
    std::vector<std::string> elsewhere = words;
    elsewhere.insert(elsewhere.end(), {"--sysroot", "/tree"});
    EXPECT_EQ(other.Ravctl(elsewhere, {}, FixtureRoot::kProc).out, machine.Ravctl(words).out);
  }
  EXPECT_EQ(other.Ravctl({"registry", "set", kUnit, "a", "b", "--sysroot", "/tree"}).status, 2);
}

TEST(RegistryWriters, ChangesAtTheSameTimeAllCount) {
  const ToolRoot machine;
  machine.WriteFile(kFile, kStore);
  constexpr int kWriters = 8;
  machine.Run(
      [] {
        std::vector<pid_t> writers;
        for (int writer = 0; writer < kWriters; ++writer) {
          const std::string name = "Writer" + std::to_string(writer);
          writers.push_back(StartRavctl({"registry", "set", "HKEY_LOCAL_MACHINE/Unit", name, "here"}, "/" + name));
        }
        for (const pid_t writer : writers) {
          int status = -1;
          ::waitpid(writer, &status, 0);
          EXPECT_EQ(status, 0);
        }
      },
      FixtureRoot::kUsr);
  const std::string saved = machine.ReadFile(kFile);
  for (int writer = 0; writer < kWriters; ++writer)
    EXPECT_THAT(saved, HasSubstr("Writer" + std::to_string(writer) + "=s=here\n"));
}

namespace {

int StatusOf(pid_t child) {
  int status = -1;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// As a module saves its tree.
void SaveAsModule(std::string_view content) {
  WriteWholeFile(kNew, content);
  std::filesystem::rename(kFile, kOld);
  std::filesystem::rename(kNew, kFile);
}

constexpr const char* kOfModule = "[HKEY_LOCAL_MACHINE]\nModule=s=1\n\n\n";
constexpr const char* kOfBoth = "[HKEY_LOCAL_MACHINE]\nModule=s=1\nOwn=s=1\n\n\n";

ravctl::StoreKey WithOwn(const ravctl::StoreKey& root) {
  ravctl::StoreKey target = root;
  MakeStoreKey(target, {"HKEY_LOCAL_MACHINE"}).values["Own"] = {.type = kRegistryString, .data = "1", .number = 0};
  return target;
}

}  // namespace

TEST(RegistryWriters, OneThatDoesNotEndIsNamedAndOthersLocksDoNotCount) {
  const ToolRoot machine;
  machine.WriteFile(kFile, kStore);
  machine.Run(
      [] {
        ::alarm(100);
        const auto set = [](const char* value) {
          return StatusOf(StartRavctl({"registry", "set", kUnit, "Port", value}, "/out"));
        };
        const UniqueFd directory(::open("/etc/pelrix", O_RDONLY | O_CLOEXEC));
        ASSERT_EQ(::flock(directory.Get(), LOCK_EX), 0);
        EXPECT_EQ(set("1"), 0);
        std::ofstream(kLock) << "1\n";  // a killed edit's
        EXPECT_EQ(set("2"), 0);
        EXPECT_FALSE(std::filesystem::exists(kLock));

        std::optional<ravctl::StoreLock> lock(std::in_place);
        struct stat info {};
        EXPECT_EQ(::stat(kLock, &info), 0);
        EXPECT_EQ(info.st_mode & 07777U, 0600U);
        EXPECT_EQ(set("2"), 0) << "waited for nothing to write";
        EXPECT_EQ(set("3"), 4);
        EXPECT_THAT(ReadWholeFile("/out.err"), HasSubstr("set: another edit of the registry does not end, nothing was "
                                                         "written: process " +
                                                         std::to_string(::getpid()) + " (test_ravctl)"));
        EXPECT_THAT(ReadWholeFile(kFile), HasSubstr("Port=d=2\n"));

        // What was best before another edit ended is not taken after it.
        WriteWholeFile(kFile, "A=s=cut");
        const pid_t recover = StartRavctl({"registry", "recover"}, "/out");
        ::usleep(300000);
        WriteWholeFile(kFile, kBackup);
        lock.reset();
        EXPECT_EQ(StatusOf(recover), 0);
        EXPECT_EQ(ReadWholeFile(kFile), kBackup);
      },
      FixtureRoot::kUsr | FixtureRoot::kProc);
}

TEST(RegistryWriters, WhatAModuleSavesMeanwhileIsKept) {
  const ToolRoot machine;
  machine.WriteFile(kFile, kStore);
  machine.Run([] {
    ravctl::Output out({});
    int calls = 0;
    const auto edit = [&](int saves) {
      calls = 0;
      return ravctl::EditLiveStore(
          [&](const ravctl::StoreKey& root) {
            if (calls++ < saves) SaveAsModule(std::string(calls % 2 == 0 ? "" : "A=s=1\n") + kOfModule);
            return WithOwn(root);
          },
          {}, out);
    };
    EXPECT_TRUE(edit(2).isWritten);
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(ReadWholeFile(kFile), kOfBoth);
    EXPECT_EQ(ReadWholeFile(kOld), kOfModule);
    SaveAsModule(kOfModule);
    try {
      edit(1000);
      ADD_FAILURE() << "written over a save";
    } catch (const ravctl::CommandError& error) {
      EXPECT_THAT(error.what(), HasSubstr("others save the registry all the time, nothing was written"));
    }
    EXPECT_THAT(ReadWholeFile(kFile), HasSubstr(kOfModule));
    EXPECT_FALSE(std::filesystem::exists(kLock));
  });
}

// The module holds the lock of its save already when the edit looks for the last time.
TEST(RegistryWriters, ASaveThatIsOnItsWayIsTold) {
  const ToolRoot machine;
  machine.WriteFile(kFile, kStore);
  machine.Run([] {
    ravctl::Output out({});
    const ravctl::LiveStore before = ravctl::LoadLiveStore();
    int isLocked[2];
    ASSERT_EQ(::pipe(isLocked), 0);
    const pid_t module = ::fork();
    if (module == 0) {
      CTempFile temp(kNew);
      const bool isOpen = temp.Open() == CTempFile::kDone && WriteAllAt(temp.Get(), kOfModule, 0);
      if (!isOpen || ::write(isLocked[1], "x", 1) != 1) ::_exit(1);
      ::usleep(300000);
      ::_exit(::rename(kFile, kOld) == 0 && temp.RenameTo(kFile) ? 0 : 1);
    }
    char byte = 0;
    ASSERT_EQ(::read(isLocked[0], &byte, 1), 1);
    bool isTold = false;
    try {
      isTold = !ravctl::SaveLiveStore(before, WithOwn(before.root), out);
    } catch (const ravctl::CommandError& error) {
      EXPECT_THAT(error.what(), HasSubstr("saved, but another process saved at the same moment"));
      isTold = true;
    }
    EXPECT_EQ(StatusOf(module), 0);
    EXPECT_TRUE(isTold);
    EXPECT_TRUE(ReadWholeFile(kFile) == kOfModule || ReadWholeFile(kOld) == kOfModule);
  });
}
