// The registry commands that read: stores that are whole, damaged or hostile, and what comes back of them.

#include "ravctl/registry_machine.h"

using ::testing::ElementsAre, ::testing::HasSubstr, ::testing::IsEmpty;

namespace {

// "check@line" of every finding: first the bad ones, behind a bar the notes.
std::string Findings(const nlohmann::json& answer) {
  std::string bad, notes;
  for (const nlohmann::json& row : answer["data"]["findings"]) {
    const std::string place = row["place"];
    const size_t colon = place.find(':');
    if (row["severity"] != "bad" && row["severity"] != "note") continue;
    (row["severity"] == "bad" ? bad : notes) +=
        row["check"].get<std::string>() + (colon == std::string::npos ? "" : "@" + place.substr(colon + 1)) + " ";
  }
  return bad + "| " + notes;
}

// The files that a start would load.
std::vector<std::string> Loaded(const nlohmann::json& answer) {
  std::vector<std::string> files;
  for (const nlohmann::json& file : answer["data"]["files"])
    if (file["loaded"] == true) files.push_back(file["file"]);
  return files;
}

}  // namespace

TEST(Registry, EveryTypeIsShown) {
  const RegistryMachine machine;
  const nlohmann::json list = machine.Json("registry list -r");
  EXPECT_THAT(Values(list["data"], "name"), ElementsAre("HKEY_LOCAL_MACHINE", "Path", "Unit", "Home", "Key", "Port",
                                                        "Top", "Deep", "Evil", "HKEY_USERS"));
  EXPECT_THAT(Values(list["data"], "type"),
              ElementsAre("key", "string", "key", "expand", "binary", "number", "number", "key", "string", "key"));
  EXPECT_THAT(Values(list["data"], "value"),
              ElementsAre("1 values, 1 keys", "/opt/x", "4 values, 1 keys", "%HOME%/unit", "0a ff 01", "3172",
                          "4294967295", "1 values, 0 keys", "a\x1b[31m\\xff", "0 values, 0 keys"));
  EXPECT_EQ(machine.Json("registry get HKEY_LOCAL_MACHINE\\Unit Port")["data"][0]["number"], 3172);
  EXPECT_EQ(machine.Ravctl("registry get --raw HKEY_LOCAL_MACHINE/Unit Key").out, "\x0a\xff\x01");
  EXPECT_EQ(machine.Ravctl("registry get --raw --expand HKEY_LOCAL_MACHINE/Unit Home", {"HOME=/root"}).out,
            "/root/unit");
  EXPECT_THAT(machine.Ravctl("registry list HKEY_LOCAL_MACHINE\\Unit\\Deep").out, HasSubstr("a\\x1b[31m\\xff"));
  const nlohmann::json tree = machine.Json("registry tree --values --depth 1");
  EXPECT_THAT(Values(tree["data"], "name"), ElementsAre("\\", "HKEY_LOCAL_MACHINE", "HKEY_USERS"));
  EXPECT_THAT(Values(tree["data"], "parent"), ElementsAre("-", "0", "0"));
}

TEST(Registry, FindWithNegation) {
  const RegistryMachine machine;
  for (const auto& [words, names] : std::vector<std::pair<std::string, std::vector<std::string>>>{
           {"unit", {"Home"}},
           {"unit -i", {"Unit", "Home"}},
           {"*o* --in name", {"Home", "Port", "Top"}},
           {"o --in name --not *t", {"Home", "Top"}},
           {"o --in name -v", {"Path", "Key", "Evil"}},
           {"* --type number --below HKEY_LOCAL_MACHINE\\Unit", {"Port", "Top"}},
           {"nowhere", {}},
       })
    EXPECT_EQ(Values(machine.Json("registry find " + words, names.empty() ? 1 : 0)["data"], "name"), names) << words;
}

TEST(Registry, ExportsComeBack) {
  const RegistryMachine machine;
  for (const std::string form : {"json", "store"}) {
    const std::string file = "/export." + form;
    EXPECT_EQ(machine.Ravctl("registry export --format " + form + " --output " + file).status, 0);
    EXPECT_EQ(machine.Mode(file) & 07777U, 0600U);
    EXPECT_EQ(machine.Ravctl("registry export --format " + form).out, machine.ReadFile(file));
    EXPECT_THAT(machine.Json("registry diff live " + file)["data"], IsEmpty());
    machine.WriteFile(kRegistry, kBackup);
    const nlohmann::json dry = machine.Json("registry import --dry-run " + file);
    EXPECT_EQ(dry["data"]["written"], false);
    EXPECT_EQ(machine.ReadFile(kRegistry), kBackup);
    EXPECT_EQ(machine.Json("registry import " + file)["data"]["changes"], dry["data"]["changes"]);
    EXPECT_EQ(machine.ReadFile(kRegistry), kStore) << form;
  }
  EXPECT_EQ(machine.ReadFile("/export.store"), kStore);
  ExpectValid(nlohmann::json::parse(machine.ReadFile("/export.json")));
  machine.Json("registry export HKEY_LOCAL_MACHINE\\Unit");

  EXPECT_EQ(machine.Ravctl("registry set HKEY_USERS Own 1").status, 0);
  EXPECT_THAT(Values(machine.Json("registry diff /export.json live", 1)["data"], "name"), ElementsAre("Own"));
  EXPECT_EQ(machine.Json("registry import /export.json")["data"]["written"], false);
  const nlohmann::json replaced = machine.Json("registry import /export.json --replace");
  EXPECT_THAT(Values(replaced["data"]["changes"], "change"), ElementsAre("removed"));
  EXPECT_EQ(machine.ReadFile(kRegistry), kStore);
  // A first name that begins with a brace makes no JSON of a store.
  for (const char* text : {"{x}=s=1\n\n", " {=s=1\n\n", "{\"a\":2=d=7\n\n"}) {
    machine.WriteFile("/store", text);
    EXPECT_EQ(machine.Json("registry diff /store live", 1)["data"].size(), 11U) << text;
    for (const char* words : {"registry import /store --replace", "registry recover --from /store"}) {
      EXPECT_EQ(machine.Ravctl(words).status, 0) << text;
      EXPECT_EQ(machine.ReadFile(kRegistry), text) << words;
      machine.WriteFile(kRegistry, kStore);
    }
  }
}

TEST(Registry, VerifyTellsEveryLoss) {
  const RegistryMachine machine;
  EXPECT_EQ(Findings(machine.Json("registry verify")), "| missing missing missing ");
  const std::pair<std::string, const char*> rows[] = {
      {"", "empty | not whole "},
      {"\n", "no-value | not whole "},
      {"A=s=1", "cut-end@1 cut-end@1 | not whole "},
      {"[K]\nA=s=1\n\n", "cut-end@3 | not whole "},
      {"A=s=1\n\nB=s=2\n", "after-end@3 | not whole "},
      {"A=s=1\nB=q=2\nC\n\n", "no-marker@2 no-marker@3 | not whole "},
      {"A=d=x\nB=d=12x\nC=d=99999999999\nD=d=+07\nE=d=4294967295\n\n",
       "bad-number@1 bad-number@2 bad-number@3 | not whole spelling@4 spelling@5 "},
      {"A=b=0a f\nB=b=0a zz\nC=b=0A FF \nD=b=100 \n\n", "bad-bytes@1 bad-bytes@2 bad-bytes@4 | not whole spelling@3 "},
      {"A=s=1\nA=d=1\n[A]\n\n\n", "twice@2 twice@3 | not whole "},
      {std::string("A=s=1\0x\nB=s=\r\n\n", 15), "zero-byte@1 | not whole carriage-return@2 "},
      {"L=s=" + std::string(1100, 'x') + "\nB=s=1\n\n", "over-long@1 no-marker@1 | not whole "},
      {"[K]rest\nA=s=1\n\n\n", "key-rest@1 | not whole "},
      {"A=s=\xff\x1b\n[a\\b]\n\n\n", "| backslash@2 "},
  };
  for (const auto& [text, findings] : rows) {
    machine.WriteFile("/file", text);
    EXPECT_EQ(Findings(machine.Json("registry verify /file", *findings == '|' ? 0 : 5)), findings) << text;
  }
}

TEST(Registry, EveryCutIsFoundAndRecovered) {
  const std::string whole = kStore;
  for (size_t length = 0; length < whole.size(); length += 1 + length / (kSanitized ? 1 : 4)) {
    RegistryMachine machine;
    const std::map<std::string, std::string> files = {
        {kRegistry, whole.substr(0, length)}, {kOld, kBackup}, {kNew, "[HKEY_LOCAL_"}};
    for (const auto& [path, text] : files)
      machine.WriteFile(path, text);
    const bool hasValue = length > whole.find("Path=s=") + 6;
    EXPECT_THAT(Loaded(machine.Json("registry verify", 5)), ElementsAre(hasValue ? kRegistry : kOld)) << length;
    EXPECT_EQ(machine.Ravctl("registry set HKEY_USERS x y").status, 5) << length;
    EXPECT_EQ(machine.ReadFile(kRegistry), files.at(kRegistry));

    const nlohmann::json recovered = machine.Json("registry recover")["data"];
    EXPECT_EQ(recovered["from"], kOld);
    EXPECT_EQ(machine.ReadFile(kRegistry), kBackup) << length;
    ASSERT_EQ(recovered["copies"].size(), 3U);
    for (const nlohmann::json& copy : recovered["copies"])
      EXPECT_EQ(machine.ReadFile(copy["copy"].get<std::string>()), files.at(copy["file"])) << copy;
    machine.Remove(kOld);
    machine.Json("registry verify");
    EXPECT_EQ(machine.Json("registry recover")["data"]["recovered"], false);
  }
}

TEST(Registry, RecoverTakesTheBestFile) {
  const std::string damaged = "[A]\nx=s=1\ny=s=2\n";
  const struct {
    std::map<std::string, std::string> files;
    const char* best;
    const char* loads;
  } rows[] = {
      {{{kOld, kBackup}, {kNew, kStore}, {kDefault, kBackup}}, kNew, kOld},  // a save had ended, but for the renames
      {{{kRegistry, damaged}, {kNew, "x=s=1"}, {kDefault, kBackup}}, kRegistry, kRegistry},  // most values
      {{{kRegistry, ""}, {kDefault, kBackup}}, kDefault, kDefault},                          // nothing else is left
      {{{kRegistry, "x=s=1"}, {kOld, damaged}, {kDefault, kBackup}}, kOld, kRegistry},
  };
  for (const auto& [files, best, loads] : rows) {
    const ToolRoot machine;
    for (const auto& [path, text] : files)
      machine.WriteFile(path, text);
    const bool hasFile = files.contains(kRegistry);
    EXPECT_THAT(Loaded(machine.Json("registry verify", hasFile ? 5 : 0)), ElementsAre(loads));
    EXPECT_EQ(machine.Json("registry recover --dry-run")["data"]["from"], best);
    EXPECT_EQ(machine.Exists(kRegistry), hasFile);
    EXPECT_EQ(machine.Json("registry recover")["data"]["recovered"], true);
    machine.Json(std::string("registry verify ") + kRegistry);
  }
  const RegistryMachine machine;
  EXPECT_EQ(machine.Json(std::string("registry recover --from ") + kRegistry)["data"]["recovered"], false);
  machine.WriteFile("/damaged", "[A]\nL=s=" + std::string(1100, 'x') + "\nB=s=1\n");
  EXPECT_EQ(machine.Ravctl("registry recover --from /damaged").status, 2);
  EXPECT_EQ(machine.ReadFile(kRegistry), kStore);
}

TEST(Registry, NoStoreAndAnUnusableOne) {
  const ToolRoot machine;
  const Fault none[] = {{"list", 4, "...there is no registry: /etc/pelrix/registry: No such file..."},
                        {"verify", 4, "...there is no registry: /etc/pelrix/registry: No such file..."},
                        {"recover", 4, "...there is no registry: /etc/pelrix/registry: No such file..."}};
  ExpectFaults(machine, "registry", none);
  // A store may begin with a value that is set.
  machine.MakeDirectory("/etc/pelrix");
  EXPECT_EQ(machine.Ravctl("registry set HKEY_USERS a b").status, 0);
  EXPECT_EQ(machine.ReadFile(kRegistry), "[HKEY_USERS]\na=s=b\n\n\n");
  machine.WriteFile(kRegistry, "nothing\n");
  EXPECT_EQ(machine.Ravctl("registry list").status, 5);
  EXPECT_EQ(machine.Ravctl("registry set HKEY_USERS a c").status, 5);
  EXPECT_EQ(machine.Ravctl("registry set HKEY_USERS a c --force").status, 0);
  // The backup answers, and that is said.
  machine.WriteFile(kRegistry, "");
  machine.WriteFile(kOld, kBackup);
  EXPECT_EQ(Members(machine.Json("registry get HKEY_LOCAL_MACHINE Path"), "data/0/value warnings/0/where"),
            "/opt/old, /etc/pelrix/registry.old");
  // A tree too deep for its file to be meant.
  std::string deep;
  for (int level = 0; level < 100000; ++level)
    deep += "[k]\n";
  machine.WriteFile(kRegistry, deep + "v=s=1\n");
  EXPECT_EQ(machine.Ravctl("registry list").status, 5);
  EXPECT_EQ(machine.Ravctl("registry verify").status, 5);
}

TEST(Registry, AnotherMachineAnswersTheSame) {
  const RegistryMachine machine;
  const ToolRoot other;
  other.WriteFile("/tree/etc/pelrix/registry", kStore);
  for (const std::string words : {"registry list -r", "registry verify -o file,line,finding,detail"})
    EXPECT_EQ(other.Ravctl(words + " --sysroot /tree", {}, FixtureRoot::kProc).out, machine.Ravctl(words).out);
  EXPECT_EQ(other.Ravctl("registry set HKEY_USERS a b --sysroot /tree").status, 2);
}
