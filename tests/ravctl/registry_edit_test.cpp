// The registry commands that write: what they refuse, a disk without room, and others that write meanwhile.

#include <sys/file.h>
#include <sys/mount.h>

#include "platform/descriptor_io.h"
#include "platform/replace_file.h"
#include "platform/unique_fd.h"
#include "ravctl/base/error.h"
#include "ravctl/registry/live_store.h"
#include "ravctl/registry/store_lock.h"
#include "ravctl/registry_machine.h"

using ::testing::HasSubstr;

namespace {

constexpr const char* kLock = "/etc/pelrix/.registry.lock";
constexpr const char* kOfModule = "[HKEY_LOCAL_MACHINE]\nModule=s=1\n\n\n";

// As a module saves its tree.
void SaveAsModule(std::string_view content) {
  WriteWholeFile(kNew, content);
  std::filesystem::rename(kRegistry, kOld);
  std::filesystem::rename(kNew, kRegistry);
}

ravctl::StoreKey WithOwn(const ravctl::StoreKey& root) {
  ravctl::StoreKey target = root;
  MakeStoreKey(target, {"HKEY_LOCAL_MACHINE"}).values["Own"] = {.type = kRegistryString, .data = "1", .number = 0};
  return target;
}

// The text of the failure, "" when there is none.
std::string FailureOf(const std::function<void()>& operation) try {
  operation();
  return "";
} catch (const ravctl::CommandError& error) {
  return error.what();
}

}  // namespace

TEST(RegistryEdit, SetAndDelWriteOnlyWhatChanges) {
  const std::pair<const char*, const char*> rows[] = {
      // words, line that the store has afterwards
      {"Port 3173", "\nPort=d=3173\n"},
      {"Port -5", "\nPort=d=-5\n"},
      {"Port 0xffffffff", "\nPort=d=-1\n"},
      {"Key 0AFF", "\nKey=b=0a ff \n"},
      {"Home %HOME%", "\nHome=es=%HOME%\n"},
      {"Port x --type string", "\nPort=s=x\n"},
      {"New gr\xc3\xbc\xc3\x9f", "\nNew=s=gr\xc3\xbc\xc3\x9f\n"},
      {"-- Dash -x", "\nDash=s=-x\n"},
      {"Empty ''", "\nEmpty=s=\n"},
  };
  const RegistryMachine machine;
  for (const auto& [words, line] : rows) {
    const std::string before = machine.ReadFile(kRegistry);
    const std::string set = std::string("registry set HKEY_LOCAL_MACHINE\\Unit ") + words;
    EXPECT_EQ(machine.Ravctl(set).status, 0) << line;
    EXPECT_THAT(machine.ReadFile(kRegistry), HasSubstr(line));
    EXPECT_EQ(machine.ReadFile(kOld), before);
    machine.Remove(kOld);
    EXPECT_EQ(machine.Ravctl(set).status, 0);
    EXPECT_FALSE(machine.Exists(kOld)) << "written without a change: " << line;
  }
  const nlohmann::json dry = machine.Json("registry del -r HKEY_LOCAL_MACHINE\\Unit --dry-run")["data"];
  EXPECT_EQ(dry["written"], false);
  EXPECT_THAT(Values(dry["changes"], "change"), ::testing::Each("removed"));
  EXPECT_FALSE(machine.Exists(kOld));
  const nlohmann::json removed = machine.Json("registry del HKEY_LOCAL_MACHINE\\Unit Port");
  EXPECT_EQ(Members(removed, "data/changes/0/old_value"), "x");
  EXPECT_EQ(machine.Json("registry set HKEY_USERS/A/B N 1 --type number")["data"]["written"], true);
  EXPECT_EQ(machine.Ravctl("registry del -r HKEY_LOCAL_MACHINE\\Unit").status, 0);
  EXPECT_EQ(machine.ReadFile(kRegistry),
            "[HKEY_LOCAL_MACHINE]\nPath=s=/opt/x\n\n[HKEY_USERS]\n[A]\n[B]\nN=d=1\n\n\n\n\n");
  EXPECT_EQ(machine.Mode(kRegistry) & 07777U, 0644U);
}

TEST(RegistryEdit, BadInputsAreRefusedInOneLine) {
  const RegistryMachine machine;
  const std::string head = R"({"schema":"ravctl/registry-export","version":1,"data":{"keys":[)";
  machine.WriteFile("/bad.json", head + "7]}}");
  machine.WriteFile("/cut.json", head.substr(0, 23));
  machine.WriteFile("/newline.json", head + R"({"path":["A"],"encoding":"text","values":[
      {"name":"good","type":"string","value":"1","encoding":"text"},
      {"name":"n","type":"string","value":"1\n[x]","encoding":"text"}]}]}})");
  const std::string unit = "HKEY_LOCAL_MACHINE\\Unit ";
  const Fault faults[] = {
      {"get " + unit + "Prot", 1,
       "...get: there is no such value: HKEY_LOCAL_MACHINE\\Unit: Prot (did you mean Port?)"},
      {"list HKEY_LOCAL_MACHINE\\Unti\\x", 1,
       "...list: there is no such key: HKEY_LOCAL_MACHINE\\Unti (did you mean Unit?)"},
      {"list A\\\\B", 2, "...list: a key of the path has no name: A\\\\B (separate the names by one backslash)"},
      {"get " + unit + "Port --raw --json", 2, "...get: --raw gives bytes, not JSON..."},
      {"set " + unit + "Port 12x", 2, "...set: it is no value of type number: 12x (give a number from..."},
      {"set " + unit + "Port 4294967296", 2, "...set: it is no value of type number..."},
      {"set " + unit + "Key '0a f'", 2, "...set: it is no value of type binary..."},
      {"set " + unit + "a=b x", 2, "...set: the registry cannot keep a value's name with an equals sign..."},
      {"set " + unit + "[a 'x\n[y]'", 2, "...set: the registry cannot keep a text with a newline..."},
      {"set " + unit + "Long " + std::string(1100, 'x'), 2,
       "...set: the registry cannot keep a line of 1108 bytes, where 1023 fit..."},
      {"set A]B x y", 2, "...set: the registry cannot keep a key's name with a closing bracket..."},
      {"set HKEY_LOCAL_MACHINE Unit x", 2, "...set: a key has that name..."},
      {"set HKEY_LOCAL_MACHINE\\Path\\x y z", 2, "...set: a value stands where a key is wanted..."},
      {"set " + unit + "x y --type word", 2, "...--type: word not in..."},
      {"del " + unit, 2, "...del: the key is not empty: HKEY_LOCAL_MACHINE\\Unit (give -r for all that is below it)"},
      {"del \\ -r", 2, "...del: the root cannot be deleted..."},
      {"del -r HKEY_LOCAL_MACHINE", 2, "...del: a registry without any value is not loaded..."},
      {"export --output /etc/pelrix/registry", 2,
       "...export: the file exists and is not overwritten: /etc/pelrix/registry..."},
      {"export --output /no/x", 4, "...export: cannot create the file: /no/x: No such file or directory..."},
      {"import /none", 4, "...import: cannot read: /none: No such file or directory (check the path)"},
      {"import /cut.json", 5,
       "...import: the export cannot be used: it is no JSON at byte 24: /cut.json (export it again)"},
      {"import /bad.json", 5, "...import: the export cannot be used: \"encoding\" is missing..."},
      {"import /newline.json", 2, "...import: the registry cannot keep a text with a newline: A: n..."},
      {"import /ravctl --merge --replace", 2, "...--..."},
      {"diff live /none", 4, "...diff: cannot read: /none..."},
      {"verify /none", 4, "...verify: cannot read: /none..."},
      {"verify /etc", 4, "...verify: cannot read: /etc..."},
  };
  ExpectFaults(machine, "registry", faults);
  EXPECT_EQ(machine.ReadFile(kRegistry), kStore);
  EXPECT_EQ(machine.Files(), "{ \"registry\" }");
}

TEST(RegistryEdit, AFullDiskLeavesTheOldStore) {
  // As much room as the store takes, and nothing for a second one.
  std::string large = "[HKEY_LOCAL_MACHINE]\n";
  for (int value = 0; value < 20000; ++value)
    large += "Value" + std::to_string(value) + "=s=text\n";
  large += "\n\n";
  RegistryMachine().Run(FixtureRoot::kUsr, [&] {
    ASSERT_EQ(::mount("none", "/etc/pelrix", "tmpfs", 0, "size=512k"), 0);
    WriteWholeFile(kRegistry, large);
    const auto expectFault = [](const char* words, const char* said) {
      const ToolResult result = RunRavctl(words);
      EXPECT_EQ(result.status, 4) << words;
      EXPECT_THAT(result.err, HasSubstr(said));
    };
    expectFault("registry set HKEY_LOCAL_MACHINE Value1 other",
                "set: the registry could not be saved, it is as it was: /etc/pelrix: No space left on device");
    expectFault("registry recover --from /small", "/small");
    WriteWholeFile("/small", kBackup);
    expectFault("registry recover --from /small", "recover: cannot make a copy, nothing was replaced: ");
    EXPECT_EQ(ReadWholeFile(kRegistry), large);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("/etc/pelrix"), {}), 1) << "something was left";
    ASSERT_EQ(::mount(nullptr, "/etc/pelrix", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    expectFault("registry del HKEY_LOCAL_MACHINE Value1", "Read-only file system");
  });
}

TEST(RegistryEdit, ARunningDaemonIsWarnedOf) {
  const RegistryMachine machine;
  std::filesystem::copy_file("/bin/sleep", machine.HostPath("/ravd"));
  machine.MakeDirectory("/var/run");
  machine.Run(FixtureRoot::kUsr | FixtureRoot::kProc, [] {
    const pid_t daemon = ::fork();
    if (daemon == 0) ::_exit(::execl("/ravd", "/ravd", "60", nullptr));
    WriteWholeFile("/var/run/ravd.pid", std::to_string(daemon) + "\n");
    ::usleep(100000);
    const ToolResult result = RunRavctl("registry set HKEY_LOCAL_MACHINE\\Unit Port 1");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, HasSubstr("the daemon runs"));
    ::kill(daemon, SIGKILL);
    ::waitpid(daemon, nullptr, 0);
  });
}

TEST(RegistryEdit, ChangesAtTheSameTimeAllCount) {
  const RegistryMachine machine;
  constexpr int kWriters = 8;
  machine.Run(FixtureRoot::kUsr, [] {
    std::vector<pid_t> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
      const std::string name = "Writer" + std::to_string(writer);
      writers.push_back(StartRavctl("registry set HKEY_LOCAL_MACHINE/Unit " + name + " here", "/" + name));
    }
    for (const pid_t writer : writers)
      EXPECT_EQ(WaitForRavctl(writer, "").status, 0);
  });
  for (int writer = 0; writer < kWriters; ++writer)
    EXPECT_THAT(machine.ReadFile(kRegistry), HasSubstr("Writer" + std::to_string(writer) + "=s=here\n"));
}

TEST(RegistryEdit, OneThatDoesNotEndIsNamedAndOthersLocksDoNotCount) {
  RegistryMachine().Run(FixtureRoot::kUsr | FixtureRoot::kProc, [] {
    ::alarm(100);
    const auto set = [](const char* value) {
      return RunRavctl(std::string("registry set HKEY_LOCAL_MACHINE\\Unit Port ") + value);
    };
    const UniqueFd directory(::open("/etc/pelrix", O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::flock(directory.Get(), LOCK_EX), 0);
    EXPECT_EQ(set("1").status, 0);
    WriteWholeFile(kLock, "1\n");  // a killed edit's
    EXPECT_EQ(set("2").status, 0);
    EXPECT_FALSE(std::filesystem::exists(kLock));

    std::optional<ravctl::StoreLock> lock(std::in_place);
    EXPECT_EQ(std::filesystem::status(kLock).permissions(), std::filesystem::perms(0600));
    EXPECT_EQ(set("2").status, 0) << "waited for nothing to write";
    const ToolResult kept = set("3");
    EXPECT_EQ(kept.status, 4);
    EXPECT_THAT(kept.err, HasSubstr("set: another edit of the registry does not end, nothing was written: process " +
                                    std::to_string(::getpid()) + " (test_ravctl)"));
    EXPECT_THAT(ReadWholeFile(kRegistry), HasSubstr("Port=d=2\n"));

    // What was best before another edit ended is not taken after it.
    WriteWholeFile(kRegistry, "A=s=cut");
    const pid_t recover = StartRavctl("registry recover");
    ::usleep(300000);
    WriteWholeFile(kRegistry, kBackup);
    lock.reset();
    EXPECT_EQ(WaitForRavctl(recover).status, 0);
    EXPECT_EQ(ReadWholeFile(kRegistry), kBackup);
  });
}

TEST(RegistryEdit, WhatAModuleSavesMeanwhileIsKept) {
  RegistryMachine().Run([] {
    ravctl::Output out({});
    int calls = 0;
    const auto edit = [&](int saves) {
      calls = 0;
      const auto change = [&](const ravctl::StoreKey& root) {
        if (calls++ < saves) SaveAsModule(std::string(calls % 2 == 0 ? "" : "A=s=1\n") + kOfModule);
        return WithOwn(root);
      };
      return ravctl::EditLiveStore(change, {}, out);
    };
    EXPECT_TRUE(edit(2).isWritten);
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(ReadWholeFile(kRegistry), "[HKEY_LOCAL_MACHINE]\nModule=s=1\nOwn=s=1\n\n\n");
    EXPECT_EQ(ReadWholeFile(kOld), kOfModule);
    SaveAsModule(kOfModule);
    EXPECT_THAT(FailureOf([&] { edit(1000); }),
                HasSubstr("others save the registry all the time, nothing was written"));
    EXPECT_THAT(ReadWholeFile(kRegistry), HasSubstr(kOfModule));
    EXPECT_FALSE(std::filesystem::exists(kLock));
  });
}

// The module holds the lock of its save already when the edit looks for the last time.
TEST(RegistryEdit, ASaveThatIsOnItsWayIsTold) {
  RegistryMachine().Run([] {
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
      ::_exit(::rename(kRegistry, kOld) == 0 && temp.RenameTo(kRegistry) ? 0 : 1);
    }
    char byte = 0;
    ASSERT_EQ(::read(isLocked[0], &byte, 1), 1);
    bool isSaved = false;
    const std::string failure = FailureOf([&] { isSaved = ravctl::SaveLiveStore(before, WithOwn(before.root), out); });
    EXPECT_EQ(WaitForRavctl(module, "").status, 0);
    EXPECT_TRUE(failure.find("saved, but another process saved at the same moment") != std::string::npos ||
                (failure.empty() && !isSaved))
        << failure;
    EXPECT_TRUE(ReadWholeFile(kRegistry) == kOfModule || ReadWholeFile(kOld) == kOfModule);
  });
}
