// Saves and edits whose system calls fail, or that are killed or lose power between them.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>

#include "platform/ini_file.h"
#include "prove/prove.h"
#include "registry/registry.h"
#include "support/fixture_root.h"
#include "support/trace_capture.h"

namespace {

constexpr const char* kRegistry = "/etc/pelrix/registry";
constexpr const char* kOld = "/etc/pelrix/registry.old";
constexpr const char* kNew = "/etc/pelrix/registry.new";
constexpr const char* kIni = "/etc/test.ini";
constexpr int kValues = 20;
constexpr const char* kErrors[] = {"ENOSPC", "EIO", "EDQUOT", "EROFS", "EACCES", "EINTR"};

std::string StateText(unsigned int state) {
  std::string text = "[HKEY_LOCAL_MACHINE]\n";
  for (int value = 0; value < kValues; ++value)
    text += "Value" + std::to_string(value) + "=d=" + std::to_string(state) + "\n";
  return text + "\n\n";
}

void Write(const char* path, const std::string& text) {
  FILE* file = std::fopen(path, "we");
  ASSERT_NE(file, nullptr) << path;
  std::fwrite(text.data(), 1, text.size(), file);
  std::fclose(file);
}

// What the next process would load: one state, or nothing when there is no complete one.
std::optional<unsigned int> LoadedState() {
  CRegistryNode node;
  if (!CRegistry::ReadTree(kRegistry, node) && !CRegistry::ReadTree(kOld, node)) return std::nullopt;
  const CRegistryNodeRef key = node.FindSubKey("HKEY_LOCAL_MACHINE");
  if (!key) return std::nullopt;
  const CCriticalSectionLock lock(*key.Get());
  std::optional<unsigned int> state;
  for (int value = 0; value < kValues; ++value) {
    const RegistryEntry* entry = key->Find("Value" + std::to_string(value));
    if (entry == nullptr || (state && *state != entry->Number())) return std::nullopt;
    state = entry->Number();
  }
  return state;
}

// Exit status 0: the save was reported as done.
int SaveNextState() {
  CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
  unsigned int state = 0;
  registry.QueryValue(&state, "Value0");
  for (int value = 0; value < kValues; ++value)
    registry.SetValue(("Value" + std::to_string(value)).c_str(), state + 1);
  const TraceCapture trace(2);
  ::getppid();
  CRegistry::SaveTree();
  ::getppid();
  const bool isDone = trace.Count("SaveTree MPRegistryTemp") == 1;
  std::fflush(nullptr);
  ::_exit(isDone ? 0 : 1);
}

const std::string kIniBefore =
    "[A]\n\nfirst=1\n\n[B]\n\nkey=old value\nother=2\n\n[C]\n\nlast=" + std::string(300, 'l') + "\n";

struct IniChange {
  const char* section;
  const char* key;
  std::string value;
};
const IniChange kIniChanges[] = {{"B", "key", std::string(500, 'v')},
                                 {"B", "key", "v"},
                                 {"B", "more", "x"},
                                 {"C", "last", "short"},
                                 {"D", "new", "x"}};

[[noreturn]] void EditIni(const IniChange& change) {
  ::getppid();
  const int result = CIniFile::WritePrivateProfileString(change.section, change.key, change.value.c_str(), kIni);
  ::getppid();
  ::_exit(result == 1 ? 0 : 1);
}

std::vector<std::string> Strace(const std::string& option, const std::string& worker) {
  return {"/usr/bin/strace", "-o", "/calls", "-s", "100000", "-xx", "-e", option, "/prove", "worker", worker};
}

bool IsMemoryCall(const std::string& name) {
  return name == "brk" || name == "mmap" || name == "munmap" || name == "mprotect" || name == "mremap";
}

bool WasInjected() {
  const std::vector<SystemCall> calls = ReadCalls("/calls");
  return std::any_of(calls.begin(), calls.end(), [](const SystemCall& call) {
    return call.line.ends_with("(INJECTED)") || call.line.find(" = ?") != std::string::npos;
  });
}

// Calls back for each call of the worker with what to inject there.
int ForEachFault(const std::string& worker, const std::vector<std::string>& faults,
                 const std::function<void()>& prepare,
                 const std::function<void(int status, const std::string& what)>& check) {
  // The first run of all makes directories.
  for (int run = 0; run < 2; ++run) {
    prepare();
    EXPECT_EQ(RunCommand(Strace("trace=all", worker)), 0) << ReadWholeFile("/stderr");
  }
  int count = 0;
  for (const SystemCall& call : ReadCalls("/calls")) {
    if (IsMemoryCall(call.name)) continue;
    for (const std::string& fault : faults) {
      for (const char* repeat : {"", "+"}) {
        if (fault.starts_with("signal") && *repeat != '\0') continue;
        // A call that is interrupted for ever is repeated for ever.
        const bool endsSomeTime = fault == "error=EINTR" && *repeat != '\0';
        const std::string what = call.name + ":" + fault + ":when=" + std::to_string(call.number) +
                                 (endsSomeTime ? ".." + std::to_string(call.number + 3) : repeat);
        prepare();
        const int status = RunCommand(Strace("inject=" + what, worker));
        EXPECT_TRUE(WasInjected()) << what;
        check(status, what);
        if (testing::Test::HasFailure()) return count;
        ++count;
      }
    }
  }
  return count;
}

std::vector<std::string> Errors() {
  std::vector<std::string> faults;
  for (const char* error : kErrors)
    faults.push_back(std::string("error=") + error);
  return faults;
}

class FaultRoot : public FixtureRoot {
 public:
  FaultRoot() {
    MakeDirectory("/etc/pelrix");
    MakeDirectory("/full");
    std::filesystem::copy("/proc/self/exe", HostPath("/prove"));
  }
};

void PrepareRegistry() {
  Write(kRegistry, StateText(1));
  Write(kOld, StateText(0));
  ::unlink(kNew);
}

void CheckSave(int status, const std::string& what) {
  const std::optional<unsigned int> state = LoadedState();
  ASSERT_TRUE(state.has_value()) << what << ": nothing complete to load";
  ASSERT_TRUE(*state == 1 || *state == 2) << what << ": state " << *state;
  if (status == 0) {
    ASSERT_EQ(*state, 2U) << what << ": success was reported";
  }
  ASSERT_EQ(RunCommand({"/prove", "worker", "save"}), 0) << what << ": the next save";
  ASSERT_EQ(LoadedState(), *state + 1) << what << ": the next save";
}

// The files of one directory as a disk keeps them: what was not synced may be missing, and names may change in any
// combination until their directory was synced.
struct Disk {
  struct Name {
    std::string from;  // empty: a file is made
    std::string to;    // empty: the name goes
    int node = -1;
  };
  struct Node {
    std::string synced;
    std::string text;
  };
  std::vector<Node> nodes;
  std::map<std::string, int> names;  // as synced
  std::vector<Name> pending;
  std::map<std::string, int> open;  // descriptor => node, -1 for the directory

  void Take(const std::string& line) {
    if (line.find(" = -1 ") != std::string::npos) return;
    const std::string result = line.substr(line.rfind(" = ") + 3);
    const std::vector<std::string> texts = Texts(line);
    const std::string fd = line.substr(line.find('(') + 1, line.find_first_of(",)") - line.find('(') - 1);
    if (line.starts_with("openat") && line.find("O_CREAT") != std::string::npos) {
      nodes.emplace_back();
      open[result] = static_cast<int>(nodes.size()) - 1;
      pending.push_back({"", texts[0], open[result]});
    } else if (line.starts_with("openat") && line.find("O_DIRECTORY") != std::string::npos) {
      open[result] = -1;
    } else if (line.starts_with("write(") && open.contains(fd)) {
      nodes[static_cast<size_t>(open[fd])].text += texts[0];
    } else if (line.starts_with("fsync") && open.contains(fd)) {
      if (open[fd] >= 0) {
        Node& node = nodes[static_cast<size_t>(open[fd])];
        node.synced = node.text;
      } else {
        names = After((size_t{1} << pending.size()) - 1);
        pending.clear();
      }
    } else if (line.starts_with("rename")) {
      pending.push_back({texts[0], texts[1]});
    } else if (line.starts_with("unlink")) {
      pending.push_back({texts[0], ""});
    } else if (line.starts_with("close")) {
      open.erase(fd);
    }
  }

  // The names when that subset of the changes reached the disk.
  std::map<std::string, int> After(size_t subset) const {
    // What each name meant when its change was asked for does not depend on what reached the disk.
    std::map<std::string, int> asked = names;
    std::map<std::string, int> after = names;
    for (size_t change = 0; change < pending.size(); ++change) {
      const Name& name = pending[change];
      const int node = name.from.empty() ? name.node : asked.contains(name.from) ? asked[name.from] : -1;
      const bool isKept = ((subset >> change) & 1) != 0;
      if (!name.from.empty()) asked.erase(name.from);
      if (!name.to.empty()) asked[name.to] = node;
      if (!isKept) continue;
      // A node has one name: the one that was given to it last.
      std::erase_if(after, [&](const auto& entry) { return entry.first == name.from || entry.second == node; });
      if (!name.to.empty() && node >= 0) after[name.to] = node;
    }
    return after;
  }

  static std::vector<std::string> Texts(const std::string& line) {
    std::vector<std::string> texts;
    for (size_t at = line.find('"'); at != std::string::npos; at = line.find('"', at + 1)) {
      const size_t end = line.find('"', at + 1);
      std::string text;
      for (size_t place = at + 1; place + 3 < end + 1; place += 4)
        text += static_cast<char>(std::stoi(line.substr(place + 2, 2), nullptr, 16));
      texts.push_back(text);
      at = end;
    }
    return texts;
  }
};

// Every state that a power failure at this moment may leave must load.
int CheckPowerLoss(const Disk& disk, bool isDone) {
  int states = 0;
  for (size_t subset = 0; subset < size_t{1} << disk.pending.size(); ++subset) {
    for (const size_t kept : {0U, 1U, 2U}) {  // halves of the bytes that were not synced
      for (const char* path : {kRegistry, kOld, kNew})
        ::unlink(path);
      for (const auto& [path, node] : disk.After(subset)) {
        const Disk::Node& file = disk.nodes[static_cast<size_t>(node)];
        const size_t unsynced = file.text.size() - file.synced.size();
        Write(path.c_str(), file.text.substr(0, file.synced.size() + unsynced * kept / 2));
      }
      const std::optional<unsigned int> state = LoadedState();
      EXPECT_TRUE(state == 2U || (state == 1U && !isDone)) << "subset " << subset << " kept " << kept;
      ++states;
    }
  }
  return states;
}

}  // namespace

int RunWorker(const std::string& name) {
  if (name == "save") return SaveNextState();
  if (name.starts_with("ini")) EditIni(kIniChanges[std::stoul(name.substr(3))]);
  return 2;
}

TEST(Prove, RegistrySaveFaults) {
  const FaultRoot root;
  root.Run(
      [] {
        const int faults = ForEachFault("save", Errors(), PrepareRegistry, CheckSave);
        EXPECT_GT(faults, 100);
        Figure("%d failing system calls of a save: the old or the new tree, none reported as done that was not",
               faults);
      },
      FixtureRoot::kUsr | FixtureRoot::kProc);
}

TEST(Prove, RegistrySaveKills) {
  const FaultRoot root;
  root.Run(
      [] {
        const int kills =
            ForEachFault("save", {"signal=SIGKILL"}, PrepareRegistry, [](int status, const std::string& what) {
              ASSERT_EQ(status, -SIGKILL) << what << "\n" << ReadWholeFile("/stderr");
              CheckSave(status, what);
            });
        EXPECT_GT(kills, 8);
        Figure("killed at each of %d system calls of a save: a complete tree, and the next save works", kills);
      },
      FixtureRoot::kUsr | FixtureRoot::kProc);
}

TEST(Prove, RegistryFullDisk) {
  const FaultRoot root;
  root.Run(
      [] {
        ASSERT_EQ(::mount("tmpfs", "/etc/pelrix", "tmpfs", 0, "size=64k"), 0);
        PrepareRegistry();
        int refused = 0;
        for (size_t room = 0; room <= 64; room += 4) {
          PrepareRegistry();
          FILE* filler = std::fopen("/etc/pelrix/filler", "we");
          const std::string page(4096, 'f');
          for (size_t left = 64; left > room && std::fwrite(page.data(), 1, page.size(), filler) == page.size();
               left -= 4)
            std::fflush(filler);
          std::fclose(filler);
          const int status = RunCommand({"/prove", "worker", "save"});
          refused += status != 0 ? 1 : 0;
          ::unlink("/etc/pelrix/filler");
          ASSERT_NO_FATAL_FAILURE(CheckSave(status, "room " + std::to_string(room)));
        }
        EXPECT_GT(refused, 0);
        Figure("17 fill levels of a tmpfs, %d saves refused: the old or the new tree", refused);
      },
      FixtureRoot::kUsr | FixtureRoot::kProc);
}

TEST(Prove, RegistryPowerLoss) {
  const FaultRoot root;
  root.Run(
      [] {
        int states = 0;
        for (const bool hasRegistry : {true, false}) {
          PrepareRegistry();
          Disk disk;
          disk.nodes = {{StateText(1), StateText(1)}, {StateText(0), StateText(0)}};
          disk.names = {{kRegistry, 0}, {kOld, 1}};
          if (!hasRegistry) {  // as a kill between the renames leaves it
            ASSERT_EQ(::rename(kRegistry, kOld), 0);
            disk.names = {{kOld, 0}};
          }
          ASSERT_EQ(RunCommand(Strace("trace=all", "save")), 0);
          const std::vector<SystemCall> calls = ReadCalls("/calls");
          for (const SystemCall& call : calls) {
            disk.Take(call.line);
            states += CheckPowerLoss(disk, false);
          }
          states += CheckPowerLoss(disk, true);
          ASSERT_FALSE(HasFailure());
        }
        EXPECT_GT(states, 100);
        Figure("%d states after a power failure: each loads a complete tree, after a finished save the new one",
               states);
      },
      FixtureRoot::kUsr | FixtureRoot::kProc);
}

TEST(Prove, IniFaults) {
  const FaultRoot root;
  root.Run(
      [] {
        int faults = 0;
        int mixed = 0;
        int kills = 0;
        const auto prepare = [] { Write(kIni, kIniBefore); };
        for (size_t change = 0; change < std::size(kIniChanges); ++change) {
          const std::string worker = "ini" + std::to_string(change);
          prepare();
          ASSERT_EQ(RunCommand({"/prove", "worker", worker}), 0);
          const std::string after = ReadWholeFile(kIni);
          faults += ForEachFault(worker, Errors(), prepare, [&after](int status, const std::string& what) {
            ASSERT_EQ(ReadWholeFile(kIni), status == 0 ? after : kIniBefore) << what << " status " << status;
          });
          kills += ForEachFault(worker, {"signal=SIGKILL"}, prepare, [&](int, const std::string&) {
            const std::string found = ReadWholeFile(kIni);
            mixed += found != kIniBefore && found != after ? 1 : 0;
          });
        }
        // How often a kill at any moment meets the window.
        std::mt19937 random(1);
        const int rounds = Rounds(2000, 100);
        int torn = 0;
        for (int round = 0; round < rounds; ++round) {
          Write(kIni, kIniBefore);
          const pid_t editor = ::fork();
          if (editor == 0) {
            while (true)
              for (const char* value : {"long value of a key that moves all the rest", "short"})
                CIniFile::WritePrivateProfileString("B", "key", value, kIni);
          }
          ::usleep(static_cast<useconds_t>(500 + random() % 2000));
          ::kill(editor, SIGKILL);
          ::waitpid(editor, nullptr, 0);
          const std::string found = ReadWholeFile(kIni);
          const bool isWhole = found == kIniBefore || (found.ends_with(kIniBefore.substr(kIniBefore.find("other="))) &&
                                                       (found.find("key=short\nother") != std::string::npos ||
                                                        found.find("the rest\nother") != std::string::npos));
          torn += isWhole ? 0 : 1;
        }
        EXPECT_GT(faults, 100);
        Figure(
            "%d failing calls leave the file as it was; window of a kill: %d of %d calls, %d of %d kills of a program "
            "that does nothing but edit",
            faults, mixed, kills, torn, rounds);
      },
      FixtureRoot::kUsr | FixtureRoot::kProc);
}
