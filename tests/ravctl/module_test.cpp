// The module commands on the example switch, and the tool beside a running daemon.

#include <poll.h>

#include "ravctl/commands/all_commands.h"
#include "ravctl/line/command.h"
#include "ravctl/ravctl_runner.h"

using ::testing::EndsWith, ::testing::HasSubstr, ::testing::StartsWith;

namespace fs = std::filesystem;

namespace {

class SwitchRoot : public ToolRoot {
 public:
  SwitchRoot() {
    MakeDirectory("/switch");
    const fs::path library(EXAMPLE_SWITCH_LIBRARY);
    fs::copy(library.parent_path(), HostPath("/switch"),
             fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    fs::copy_file(RAVD_BINARY, HostPath("/ravd"));
  }
};

// "finding severity" of that check, "" when there is none.
std::string Found(const nlohmann::json& answer, const char* check) {
  for (const nlohmann::json& row : answer["data"])
    if (row["check"] == check) return Members(row, "finding severity");
  return "";
}

}  // namespace

TEST(ModuleCheck, InterfaceAndWriters) {
  const SwitchRoot machine;
  const auto check = [&machine](const std::string& words, int status) {
    return machine.Json("module check " + words, status);
  };
  nlohmann::json answer = check("/switch/libswitch.so", 0);
  EXPECT_THAT(Found(answer, "SW_QueryInterface"), StartsWith("exported, "));
  EXPECT_THAT(Found(answer, "interface"), EndsWith(", ok"));
  // Root runs no constructor of what another may have written.
  fs::permissions(machine.HostPath("/switch"), fs::perms::all);
  answer = check("--no-load /switch/libswitch.so", 1);
  EXPECT_THAT(Found(answer, "writable"), StartsWith("/switch by everybody, "));
  EXPECT_EQ(Found(answer, "interface"), "");
  EXPECT_THAT(Found(check("/switch/libswitch.so", 1), "interface"), EndsWith(", unknown"));
  fs::permissions(machine.HostPath("/switch"), fs::perms(0755));

  // A link and its directory decide as much as what it leads to; a bare name is that of a file here.
  machine.MakeLink("/libswitch.so", "tmp/../switch/./libswitch.so");
  check("libswitch.so", 0);
  machine.MakeDirectory("/open", 01777);
  machine.MakeLink("/open/libswitch.so", "/libswitch.so");
  check("/open/libswitch.so", 0);
  fs::permissions(machine.HostPath("/open"), fs::perms::all);
  answer = check("/open/libswitch.so", 1);
  EXPECT_THAT(Found(answer, "writable"), StartsWith("/open by everybody, "));
  EXPECT_THAT(Found(answer, "interface"), EndsWith(", unknown"));

  // A module is judged as one; other files are no libraries, cut ones included.
  EXPECT_THAT(Found(check("/switch/modules/heartbeat.so", 0), "ModuleStart"), StartsWith("exported, "));
  machine.WriteFile("/text.so", "text");
  EXPECT_EQ(machine.Ravctl("module check /text.so").status, 5);
  EXPECT_EQ(machine.Ravctl("module check /none.so").status, 4);
  const std::string library = machine.ReadFile("/switch/libswitch.so");
  for (size_t length = 16; length < library.size(); length += library.size() / 23) {
    machine.WriteFile("/cut.so", library.substr(0, length));
    const ToolResult result = machine.Ravctl("module check /cut.so");
    EXPECT_TRUE(result.status == 1 || result.status == 5) << length << ": " << result.status << result.err;
  }
}

TEST(ModuleList, ShowsWhatTheSwitchWrote) {
  const ToolRoot machine;
  EXPECT_EQ(machine.Ravctl("module list").status, 4);
  machine.WriteFile("/run/ravd-modules.ini",
                    "[ravd]\nPid=4711\n[metrics]\nState=running\nSince=1700000000\nVersion=3.12.5\nBuildId=0a1b\n"
                    "File=/usr/lib/ravd/modules/metrics.so\n[old]\nState=lost\nReason=it threw, at last\n");
  const nlohmann::json answer = machine.Json("module list", 0, {"TZ=UTC"});
  EXPECT_EQ(Members(answer["data"][0], "name state since version build_id file reason"),
            "metrics, running, 2023-11-14 22:13:20, 3.12.5, 0a1b, /usr/lib/ravd/modules/metrics.so, -");
  EXPECT_EQ(Members(answer["data"][1], "name state version reason"), "old, lost, -, it threw, at last");
  EXPECT_EQ(answer["data"].size(), 2U);
  EXPECT_EQ(answer["warnings"][0]["what"], "it is of a daemon that no longer runs");
}

TEST(ModuleRun, StepsAndTrace) {
  const SwitchRoot machine;
  const nlohmann::json run = machine.Json("module run /switch/libswitch.so -s 1")["data"];
  EXPECT_EQ(run["steps"].size(), 8U);
  EXPECT_THAT(run["trace"].dump(), HasSubstr("Heartbeat           : beat 1"));
  const ToolResult killed = machine.Ravctl("module run /switch/libswitch.so -s 60 --timeout 1");
  EXPECT_EQ(killed.status, 1);
  EXPECT_THAT(killed.out, HasSubstr("ok   modules started\n"));
  EXPECT_THAT(killed.out, HasSubstr("FAIL killed: not done after 1 s\n"));
  EXPECT_THAT(killed.out, HasSubstr("heartbeat.so started"));
  EXPECT_EQ(machine.Json("module run /ravctl", 1)["data"]["good"], false);
}

// A pipe that the tool and all that it starts inherit ends when none of them is left.
TEST(ModuleRun, KilledLeavesNeitherProcessNorDirectory) {
  const SwitchRoot machine;
  machine.Run(FixtureRoot::kUsr | FixtureRoot::kProc, [] {
    const auto isTracing = [] {
      return std::ranges::any_of(fs::directory_iterator("/tmp"),
                                 [](const fs::path& directory) { return fs::exists(directory / "log.ravctl-module"); });
    };
    for (const int signal : {SIGKILL, SIGINT, SIGHUP}) {
      int ends[2] = {-1, -1};
      ASSERT_EQ(::pipe(ends), 0);
      const pid_t tool = StartRavctl("module run /switch/libswitch.so -s 60 --timeout 90", "/run");
      ::close(ends[1]);
      for (int tries = 0; tries < 3000 && !isTracing(); ++tries)
        ::usleep(10000);
      EXPECT_TRUE(isTracing());
      ::kill(tool, signal);
      ::waitpid(tool, nullptr, 0);
      pollfd all{ends[0], POLLIN, 0};
      EXPECT_EQ(::poll(&all, 1, 20000), 1) << "signal " << signal;
      EXPECT_TRUE(fs::is_empty("/tmp")) << "signal " << signal;
      ::close(ends[0]);
    }
  });
  const ToolResult nowhere = machine.Ravctl("module run /switch/libswitch.so", {"TMPDIR=/no"});
  EXPECT_EQ(nowhere.status, 4);
  EXPECT_EQ(nowhere.err,
            "ravctl: module run: cannot make a temporary directory: TMPDIR=/no: No such file or directory "
            "(let TMPDIR name a directory that can be written to)\n");
}

TEST(RunningDaemon, StatusToggleAndTrace) {
  const SwitchRoot machine;
  machine.MakeDirectory("/var/run");
  machine.MakeDirectory("/var/log/pelrix");
  machine.Run(FixtureRoot::kUsr | FixtureRoot::kProc, [] {
    const pid_t daemon = ::fork();
    if (daemon == 0) {
      for (const char* variable : {"LD_LIBRARY_PATH=/switch", "QN_LOG_DEBUG_LEVEL=5", "TraceFileLimit=1",
                                   "QN_LOG_RINGBUF_WEIGHT=1", "QN_LOG_RINGBUF_DIR=/var/log/pelrix"})
        ::putenv(const_cast<char*>(variable));
      ::execl("/ravd", "ravd", "-n", nullptr);
      ::_exit(127);
    }
    for (int tries = 0; tries < 1000 && ::access("/var/log/pelrix/log.ravd_a", F_OK) != 0; ++tries)
      ::usleep(10000);
    ::usleep(300000);
    const auto run = [](const char* words, const char* file) {
      const ToolResult result = RunRavctl(words);
      EXPECT_EQ(result.status, 0) << result.err;
      WriteWholeFile(file, result.out);
    };
    run("daemon status --json", "/status");
    run("trace toggle --json", "/off");
    run("trace toggle --json", "/on");
    run("trace config --json", "/config");
    run("trace show -g 'Start all modules'", "/show");
    ::kill(daemon, SIGTERM);
    ::waitpid(daemon, nullptr, 0);
  });
  const auto parse = [&machine](const char* path) {
    nlohmann::json object = nlohmann::json::parse(machine.ReadFile(path), nullptr, false);
    ExpectValid(object);
    return object["data"];
  };
  EXPECT_EQ(parse("/status")["running"], true);
  EXPECT_TRUE(parse("/status")["executable"].is_string());
  EXPECT_EQ(parse("/off")["tracing"], false);
  EXPECT_EQ(parse("/on")["tracing"], true);
  EXPECT_EQ(Members(parse("/config"), "environment tracing"), "process " + parse("/status")["pid"].dump() + ", true");
  EXPECT_THAT(machine.ReadFile("/show"), HasSubstr("RAVD-MAIN: Start all modules  ...\n"));
}

// What a switch needs is code of root, too, and so is what the loader would find first.
TEST(ModuleCheck, WritersOfWhatIsNeeded) {
  const ToolRoot machine;
  machine.MakeDirectory("/own");
  fs::copy_file(NEEDY_SWITCH, machine.HostPath("/needy.so"));
  const std::string library = machine.HostPath("/own/" + fs::path(NEEDED_LIBRARY).filename().string());
  const auto found = [&machine](const char* check) {
    return Found(nlohmann::json::parse(machine.Ravctl("module check /needy.so --json").out), check);
  };
  fs::permissions(machine.HostPath("/own"), fs::perms::all);  // nothing is there yet
  EXPECT_THAT(found("writable"), StartsWith("/own by everybody"));
  fs::permissions(machine.HostPath("/own"), fs::perms(0755));
  fs::copy_file(NEEDED_LIBRARY, library);
  EXPECT_THAT(found("writable"), EndsWith(", ok"));
  EXPECT_THAT(found("interface"), StartsWith("refused for identifier 0"));
  fs::permissions(library, fs::perms(0777));
  EXPECT_THAT(found("writable"), EndsWith(", bad"));
  EXPECT_THAT(found("interface"), EndsWith(", unknown"));
}

TEST(ShellTexts, CompletionKeepsNamesWithBlanksWhole) {
  const ToolRoot machine;
  machine.WriteFile("/completion", machine.Ravctl("completion").out);
  machine.WriteFile("/files/my file", "");
  machine.WriteFile("/files/my*", "");
  machine.WriteFile("/files/HK", "");
  machine.WriteFile("/ask", R"(cd /files && source /completion
ask() { COMP_WORDS=(ravctl "$@"); COMP_CWORD=$#; _ravctl; printf '[%s]' "${COMPREPLY[@]}"; echo; }
ask registry diff my
ask registry re
ask daemon status --js
ask registry find x --in n
ask pci -o address,vendor
ask registry get HK
ask schema pc
)");
  machine.WriteFile("/etc/pelrix/registry", "[HKEY_USERS\\a $(touch /no) b]\nName=s=x\n\n\n");
  machine.Run(FixtureRoot::kUsr | FixtureRoot::kProc, [] {
    EXPECT_EQ(::symlink("/proc/self/fd", "/dev/fd"), 0);
    EXPECT_EQ(std::system("PATH=/:$PATH bash /ask >/answer"), 0);
  });
  EXPECT_EQ(machine.ReadFile("/answer"),
            "[my file][my*]\n[recover]\n[--json]\n[name]\n[address,vendor_id][address,vendor]\n"
            "[HKEY_USERS\\a $(touch /no) b]\n[pci]\n");
  EXPECT_FALSE(fs::exists(machine.HostPath("/no")));
}

TEST(ShellTexts, ZshAndFishOfferWhatBashDoes) {
  const ToolRoot machine;
  machine.WriteFile("/zsh", "_describe() { print -l -- ${(P)2} }\n_files() { }\ncompset() { }\ncompdef() { }\n" +
                                machine.Ravctl("completion zsh").out + R"(
ask() { words=(ravctl "$@"); CURRENT=${#words}; _ravctl }
ask registry find x --in ""
ask schema "" | grep pci
)");
  machine.WriteFile("/fish", machine.Ravctl("completion fish").out + R"(
for line in 'registry find x --in n' 'schema pc' 'pci -o address,vend' 'dae'
  complete -C "ravctl $line" | string replace -r '\t.*' ''
end
)");
  if (!fs::exists("/usr/bin/zsh") || !fs::exists("/usr/bin/fish")) GTEST_SKIP() << "zsh or fish is not installed";
  machine.Run(FixtureRoot::kUsr, [] {
    EXPECT_EQ(std::system("PATH=/:$PATH zsh -f /zsh >/zsh-says 2>&1"), 0);
    EXPECT_EQ(std::system("HOME=/tmp PATH=/:$PATH fish /fish >/fish-says 2>&1"), 0);
  });
  EXPECT_EQ(machine.ReadFile("/zsh-says"), "key\nname\nvalue\npci\n");
  EXPECT_EQ(machine.ReadFile("/fish-says"), "name\npci\naddress,vendor\naddress,vendor_id\ndaemon\n");
}

// The help, the manual page and the completion are made from one table; this walks it.
TEST(ShellTexts, NoCommandAndNoOptionIsMissing) {
  const ToolRoot machine;
  const std::string completion = machine.Ravctl("completion").out;
  const std::string manual = machine.Ravctl("man").out;
  ravctl::Command root({"ravctl", ""}, "");
  ravctl::AddAllCommands(root);
  size_t options = 0;
  const auto escaped = [](std::string roff) {
    for (size_t dash = roff.find('-'); dash != std::string::npos; dash = roff.find('-', dash + 2))
      roff.insert(dash, "\\");
    return roff;
  };
  const std::function<void(const ravctl::Command&)> check = [&](const ravctl::Command& command) {
    const std::string name = command.FullName();
    const size_t words = completion.find("\n    \"" + name + "\") words=(");
    ASSERT_NE(words, std::string::npos) << name;
    const std::string line = completion.substr(words, completion.find('\n', words + 1) - words);
    const size_t section = manual.find(".SS ravctl " + escaped(name) + "\n");
    const std::string page = manual.substr(std::min(section, manual.size()));
    for (const ravctl::Option& option : command.Options()) {
      if (option.IsWord()) continue;
      ++options;
      const std::string longName = option.names.substr(option.names.find("--"));
      EXPECT_THAT(line, HasSubstr("'" + longName + "'")) << name;
      if (!command.IsGroup() && &command != &root) {
        EXPECT_THAT(page.substr(0, page.find(".SS", 4)), HasSubstr(escaped(longName))) << name;
      }
    }
    for (const ravctl::Command& below : command.Below())
      check(below);
    // `ravctl A B` is commands/A/B.cpp.
    std::string file = name;
    std::ranges::replace(file, ' ', '/');
    std::ranges::replace(file, '-', '_');
    const fs::path commands = fs::path(RAVCTL_SOURCE) / "commands";
    EXPECT_TRUE(command.IsGroup() || name == "completion" || name == "man" || fs::exists(commands / (file + ".cpp")) ||
                fs::exists(commands / file / (file + ".cpp")))
        << name;
  };
  check(root);
  EXPECT_GT(options, 40U);
}

// A module that does what its name says.
class ModuleRoot : public ToolRoot {
 public:
  explicit ModuleRoot(const std::string& start, const std::string& stop = "") {
    WriteFile("/m.cpp",
              "#include <cstdlib>\n#define API extern \"C\" __attribute__((visibility(\"default\")))\n"
              "__attribute__((noinline)) int Broken(volatile int* place) { return *place = 1; }\n"
              "API bool ModuleStart() { " +
                  start + " }\n" + stop);
    Run(kUsr, [] { EXPECT_EQ(std::system("g++ -shared -fPIC -o /m.so /m.cpp"), 0); });
  }
};

TEST(ModuleRun, BringsTheExampleSwitchAlongAndFailsWithTheModule) {
  if (kSanitized) GTEST_SKIP() << "the sanitizer catches signals and adds to the errors";
  const std::string stop = "API void ModuleStop() {}";
  struct Row {
    const char* start;
    std::string stop;
    const char* options;
    int status;
    const char* said;  // one of its lines, or a part of one
  };
  const Row rows[] = {
      {"return true;", stop, "", 0, "ExampleSwitch       : m.so started\n"},
      {"return false;", stop, "", 1, "FAIL 1 errors in the trace\n"},
      {"return false;", stop, "--allow-errors", 0, "ok   library closed\n"},
      {"return true;", "", "", 1, "ERROR! m.so lacks ModuleStart or ModuleStop\n"},
      {"return Broken(nullptr);", stop, "", 1, "FAIL crashed: Segmentation fault, in m.so at 0x"},
      {"std::exit(0);", stop, "", 1, "FAIL a module ended the process with status 0\n"},
      {"std::abort();", stop, "", 1, ", called from m.so at 0x"},
  };
  for (const Row& row : rows) {
    const ModuleRoot machine(row.start, row.stop);
    const CommandLine command = CommandLine("module run --module /m.so -s 0") + row.options;
    const ToolResult result = machine.Ravctl(command, {}, FixtureRoot::kProc);
    EXPECT_EQ(result.status, row.status) << row.start << result.err;
    EXPECT_THAT(result.out, HasSubstr(row.said));
    const nlohmann::json checked = machine.Json("module check /m.so", row.stop.empty() ? 1 : 0);
    EXPECT_THAT(Found(checked, "ModuleStop"), StartsWith(row.stop.empty() ? "missing, " : "exported, "));
    EXPECT_THAT(Found(checked, "load"), EndsWith(", ok"));
  }
}
