// Registry files whose reading and writing fails, or is killed, loses power or meets others that do the same.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <map>
#include <optional>
#include <random>

#include "prove/faults.h"
#include "registry/registry.h"
#include "support/trace_capture.h"

namespace {

constexpr const char* kRegistry = "/etc/pelrix/registry";
constexpr const char* kOld = "/etc/pelrix/registry.old";
constexpr const char* kNew = "/etc/pelrix/registry.new";
constexpr const char* kDefault = "/etc/pelrix/registry.default";

// A tree of that many values that all hold the number of its state, and the rest of a line.
struct Tree {
  int values;
  size_t padding;
};
constexpr Tree kSmall = {20, 3};
constexpr Tree kMedium = {150, 1000};  // several reads
constexpr Tree kLarge = {3200, 1000};  // several writes

std::string ValueName(int value) {
  return "Value" + std::to_string(value);
}

std::string ValueText(unsigned int state, const Tree& tree) {
  return std::to_string(state) + std::string(tree.padding, '.');
}

std::string StateText(unsigned int state, const Tree& tree) {
  std::string text = "[HKEY_LOCAL_MACHINE]\n";
  for (int value = 0; value < tree.values; ++value)
    text += ValueName(value) + "=s=" + ValueText(state, tree) + "\n";
  return text + "\n\n";
}

void Write(const char* path, const std::string& text) {
  FILE* file = std::fopen(path, "we");
  ASSERT_NE(file, nullptr) << path;
  std::fwrite(text.data(), 1, text.size(), file);
  std::fclose(file);
}

// The state of a file; nothing when it does not load, or is none or a mixture.
std::optional<unsigned int> StateOf(const char* path, const std::function<Tree(unsigned int)>& treeOf) {
  CRegistryNode node;
  if (!CRegistry::ReadTree(path, node)) return std::nullopt;
  const CRegistryNodeRef key = node.FindSubKey("HKEY_LOCAL_MACHINE");
  if (!key) return std::nullopt;
  const CCriticalSectionLock lock(*key.Get());
  const std::span<const RegistryEntry> entries = key->Entries();
  const auto state = static_cast<unsigned int>(std::stoul(std::string(entries.front().Text())));
  const Tree tree = treeOf(state);
  const std::string text = ValueText(state, tree);
  const bool isWhole = std::ranges::all_of(entries, [&](const RegistryEntry& entry) { return entry.Text() == text; });
  return isWhole && entries.size() == static_cast<size_t>(tree.values) ? std::optional(state) : std::nullopt;
}

std::optional<unsigned int> StateOf(const char* path, const Tree& tree) {
  return StateOf(path, [&tree](unsigned int) { return tree; });
}

// What the next process would load.
std::optional<unsigned int> LoadedState(const Tree& tree) {
  const std::optional<unsigned int> state = StateOf(kRegistry, tree);
  return state ? state : StateOf(kOld, tree);
}

void SetState(CRegistry& registry, unsigned int state, const Tree& tree) {
  registry.Open("", nullptr);
  registry.CreateKey(nullptr, "HKEY_LOCAL_MACHINE");
  for (int value = 0; value < tree.values; ++value)
    registry.SetValue(ValueName(value).c_str(), ValueText(state, tree).c_str());
}

// The state behind the one that is loaded; 0 stands for nothing. Exit status 0: the save was reported as done.
[[noreturn]] void SaveNextState(const Tree& tree, bool isLoadWatched) {
  if (isLoadWatched) ::getppid();
  CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
  if (isLoadWatched) ::getppid();
  std::string text;
  registry.QueryValue(text, "Value0");
  SetState(registry, static_cast<unsigned int>(std::atoi(text.c_str())) + 1, tree);
  const TraceCapture trace(2);
  ::getppid();
  CRegistry::SaveTree();
  ::getppid();
  const bool isDone = trace.Count("SaveTree MPRegistryTemp") == 1;
  std::fflush(nullptr);
  ::_exit(isDone ? 0 : 1);
}

struct Worker {
  const char* name;
  Tree tree;
  bool isLoadWatched;
};
constexpr Worker kSave = {"save", kSmall, false};
constexpr Worker kSaveLarge = {"save-large", kLarge, false};
constexpr Worker kLoad = {"load", kMedium, true};

// What a save or a load finds: the states of the files.
constexpr unsigned int kNone = 100;
constexpr unsigned int kBad = 101;  // without any value
struct Files {
  const char* name;
  unsigned int registry;
  unsigned int old;
  unsigned int byDefault;
  bool hasNew;  // of an interrupted save

  bool IsUsual() const { return registry < kNone; }
  unsigned int State() const { return IsUsual() ? registry : old < kNone ? old : 0; }
};
constexpr Files kFiles[] = {{"registry and backup", 5, 3, kNone, false},
                            {"registry bad, backup good", kBad, 5, kNone, false},
                            {"no registry, backup good", kNone, 5, kNone, true},
                            {"nothing", kNone, kNone, kNone, false}};

std::string FileText(unsigned int state, const Tree& tree) {
  return state == kBad ? "[HKEY_LOCAL_MACHINE]\nVal" : StateText(state, tree);
}

void Prepare(const Files& files, const Tree& tree) {
  const std::pair<const char*, unsigned int> states[] = {
      {kRegistry, files.registry}, {kOld, files.old}, {kDefault, files.byDefault}};
  for (const auto& [path, state] : states) {
    ::unlink(path);
    if (state != kNone) Write(path, FileText(state, tree));
  }
  ::unlink(kNew);
  if (files.hasNew) Write(kNew, StateText(77, tree) + "left over");
}

// After a save that may have failed anywhere.
void CheckSave(const Files& files, const Worker& worker, int status, const std::string& what) {
  SCOPED_TRACE(files.name + (": " + what));
  const unsigned int before = files.State();
  const std::optional<unsigned int> state =
      before == 0 ? LoadedState(worker.tree).value_or(0) : LoadedState(worker.tree);
  ASSERT_TRUE(state.has_value()) << "nothing complete to load";
  ASSERT_TRUE(state == before || state == before + 1) << "state " << *state;
  if (status == 0) {
    ASSERT_EQ(StateOf(kRegistry, worker.tree), before + 1) << "success was reported";
    ASSERT_TRUE(before == 0 || StateOf(kOld, worker.tree) == before) << "no good backup";
  }
  ASSERT_EQ(RunCommand({"/prove", "worker", worker.name}), 0) << "the next save";
  ASSERT_EQ(StateOf(kRegistry, worker.tree), *state + 1) << "the next save";
  ASSERT_TRUE(*state == 0 || StateOf(kOld, worker.tree) == *state) << "no good backup after the next save";
}

FaultRun RunOf(const Files& files, const Worker& worker, const std::vector<std::string>& faults) {
  return {worker.name, faults, [&files, &worker] { Prepare(files, worker.tree); },
          [&files, &worker](int status, const std::string& what) { CheckSave(files, worker, status, what); }};
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

    // What is found when so many halves of what came after the sync reached the disk.
    std::string After(size_t halves) const {
      const size_t begin = text.starts_with(synced) ? synced.size() : 0;
      return halves == 0 ? synced : text.substr(0, begin + (text.size() - begin) * halves / 2);
    }
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
      const std::map<std::string, int> now = After(All());
      if (!now.contains(texts[0])) {
        nodes.emplace_back();
        pending.push_back({"", texts[0], static_cast<int>(nodes.size()) - 1});
      }
      open[result] = now.contains(texts[0]) ? now.at(texts[0]) : static_cast<int>(nodes.size()) - 1;
    } else if (line.starts_with("openat") && line.find("O_DIRECTORY") != std::string::npos) {
      open[result] = -1;
    } else if (line.find("F_DUPFD") != std::string::npos && open.contains(fd)) {
      open[result] = open[fd];
    } else if (line.starts_with("ftruncate") && open.contains(fd)) {
      nodes[static_cast<size_t>(open[fd])].text.clear();
    } else if (line.starts_with("write(") && open.contains(fd)) {
      nodes[static_cast<size_t>(open[fd])].text += texts[0];
    } else if (line.starts_with("fsync") && open.contains(fd)) {
      if (open[fd] >= 0) {
        Node& node = nodes[static_cast<size_t>(open[fd])];
        node.synced = node.text;
      } else {
        names = After(All());
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

  size_t All() const { return (size_t{1} << pending.size()) - 1; }

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
int CheckPowerLoss(const Disk& disk, const Files& files, bool isDone) {
  int states = 0;
  for (size_t subset = 0; subset <= disk.All(); ++subset) {
    for (const size_t halves : {0U, 1U, 2U}) {
      for (const char* path : {kRegistry, kOld, kNew})
        ::unlink(path);
      for (const auto& [path, node] : disk.After(subset))
        Write(path.c_str(), disk.nodes[static_cast<size_t>(node)].After(halves));
      const unsigned int before = files.State();
      const std::optional<unsigned int> state = LoadedState(kSmall);
      EXPECT_TRUE(state == before + 1 || (!isDone && (state == before || (before == 0 && !state))))
          << files.name << " subset " << subset << " halves " << halves;
      ++states;
    }
  }
  return states;
}

Disk DiskOf(const Files& files) {
  Disk disk;
  for (const char* path : {kRegistry, kOld, kNew}) {
    if (::access(path, F_OK) != 0) continue;
    disk.names[path] = static_cast<int>(disk.nodes.size());
    disk.nodes.push_back({ReadWholeFile(path), ReadWholeFile(path)});
  }
  EXPECT_EQ(disk.names.empty(), files.State() == 0);
  return disk;
}

// Makes the disk of the registry's directory, of so many KiB, full up to that room, runs the worker and checks. False
// when the save was refused.
bool SaveWithRoom(const Files& files, const Worker& worker, size_t room) {
  Prepare(files, worker.tree);
  FILE* filler = std::fopen("/etc/pelrix/filler", "we");
  const std::string page(4096, 'f');
  while (std::fwrite(page.data(), 1, page.size(), filler) == page.size() && std::fflush(filler) == 0) {
  }
  const off_t used = std::ftell(filler) / 4096 * 4096;
  EXPECT_EQ(::ftruncate(::fileno(filler), std::max<off_t>(0, used - static_cast<off_t>(room))), 0);
  std::fclose(filler);
  const int status = RunCommand({"/prove", "worker", worker.name});
  ::unlink("/etc/pelrix/filler");
  CheckSave(files, worker, status, "room " + std::to_string(room));
  return status == 0;
}

// Holds a save up before its first call of that name, does something when the calls before it hold that text, and
// tells whether the save was reported as done.
bool SaveWhile(const std::string& call, const char* text, const std::function<void()>& action) {
  Write("/calls", "");
  const pid_t saver = Start(Strace("inject=" + call + ":delay_enter=400000:when=1", kSave.name));
  EXPECT_TRUE(WaitUntil([text] { return ReadWholeFile("/calls").find(text) != std::string::npos; }));
  action();
  return WaitFor(saver) == 0;
}

// Four savers of trees of their own, which is told by the state of a tree.
constexpr unsigned int kSavers = 4;
using Progress = std::array<std::atomic<unsigned int>, kSavers>;

Tree TreeOfSaver(unsigned int state) {
  return {300 + 60 * static_cast<int>(state % kSavers), 1000};
}

[[noreturn]] void SaveForEver(unsigned int saver, Progress& progress) {
  CRegistry registry;
  registry.Open("", nullptr);
  registry.DeleteKey("HKEY_LOCAL_MACHINE");
  while (true) {
    SetState(registry, ++progress[saver] * kSavers + saver, TreeOfSaver(saver));
    CRegistry::SaveTree();
  }
}

}  // namespace

int RunWorker(const std::string& name) {
  for (const Worker& worker : {kSave, kSaveLarge, kLoad})
    if (name == worker.name) SaveNextState(worker.tree, worker.isLoadWatched);
  return RunIniWorker(name);
}

TEST(Prove, RegistrySaveFaults) {
  const FaultRoot root;
  root.Run([] {
    int faults = 0;
    for (const Files& files : kFiles)
      faults += ForEachFault(RunOf(files, kSave, Errors()));
    EXPECT_GT(faults, 200);
    Figure(
        "%d failing system calls of saves from %zu states of the files: the old or the new tree, none reported as "
        "done that was not, a good backup kept",
        faults, std::size(kFiles));
  });
}

TEST(Prove, RegistrySaveKills) {
  const FaultRoot root;
  root.Run([] {
    int kills = 0;
    for (const Files& files : kFiles) {
      FaultRun run = RunOf(files, kSave, {"signal=SIGKILL"});
      run.check = [&files](int status, const std::string& what) {
        ASSERT_EQ(status, -SIGKILL) << what << "\n" << ReadWholeFile("/stderr");
        CheckSave(files, kSave, status, what);
      };
      kills += ForEachFault(run);
    }
    EXPECT_GT(kills, 40);
    Figure(
        "killed at each of %d system calls of saves from %zu states of the files: a complete tree, and the next "
        "save works",
        kills, std::size(kFiles));
  });
}

TEST(Prove, RegistryFullDisk) {
  const FaultRoot root;
  root.Run([] {
    ASSERT_EQ(::mount("tmpfs", "/etc/pelrix", "tmpfs", 0, "size=64k"), 0);
    int refused = 0;
    int saves = 0;
    for (const Files& files : kFiles) {
      for (size_t room = 0; room <= 16384; room += 4096, ++saves) {
        refused += SaveWithRoom(files, kSave, room) ? 0 : 1;
        ASSERT_FALSE(HasFailure());
      }
    }
    EXPECT_GT(refused, 0);
    Figure("%d saves to a tmpfs filled to a level, %d refused: the old or the new tree", saves, refused);
  });
}

// A tree whose text takes several writes.
TEST(Prove, LargeRegistry) {
  const FaultRoot root;
  root.Run([] {
    int writes = 0;
    FaultRun run = RunOf(kFiles[0], kSaveLarge, Errors());
    run.faults.push_back("signal=SIGKILL");
    run.isWanted = [&writes](const SystemCall& call) { return call.name == "write" && ++writes > 1; };
    const int faults = ForEachFault(run);
    EXPECT_GE(writes, 3);

    ASSERT_EQ(::mount("tmpfs", "/etc/pelrix", "tmpfs", 0, "size=14m"), 0);
    const size_t size = StateText(6, kLarge).size();
    int refused = 0;
    const int levels = Rounds(40, 6);
    for (int level = 0; level < levels; ++level) {
      refused += SaveWithRoom(kFiles[level % 2], kSaveLarge,
                              (size + 8192) * static_cast<size_t>(level) / static_cast<size_t>(levels - 1))
                     ? 0
                     : 1;
      ASSERT_FALSE(HasFailure());
    }
    EXPECT_TRUE(refused > 0 && refused < levels) << refused;
    Figure(
        "%zu bytes in %d writes: %d of the later ones fail or are killed, %d saves to a tmpfs filled to a level, %d "
        "refused: the old or the new tree",
        size, writes, faults, levels, refused);
  });
}

TEST(Prove, RegistryPowerLoss) {
  const FaultRoot root;
  root.Run([] {
    int states = 0;
    for (const Files& files : kFiles) {
      Prepare(files, kSmall);
      Disk disk = DiskOf(files);
      ASSERT_EQ(RunCommand(Strace("trace=all", kSave.name, 100000)), 0);
      for (const SystemCall& call : ReadCalls("/calls")) {
        disk.Take(call.line);
        states += CheckPowerLoss(disk, files, false);
      }
      states += CheckPowerLoss(disk, files, true);
      ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(states, 200);
    Figure("%d states after a power failure: each loads a complete tree, after a finished save the new one", states);
  });
}

// What could not be read is never replaced by what was read instead.
TEST(Prove, RegistryLoadFaults) {
  const FaultRoot root;
  root.Run([] {
    constexpr Files kLoadFiles[] = {{"from the registry", 5, 2, 8, false}, {"from the backup", kBad, 5, 2, false}};
    int faults = 0;
    int refused = 0;
    std::vector<std::string> errors = {"error=EIO", "error=EACCES", "error=EINTR"};
    if (!IsShort())
      for (const char* error : {"EPERM", "ESTALE", "ENOMEM", "EMFILE", "ENFILE", "ETIMEDOUT", "EUCLEAN"})
        errors.push_back(std::string("error=") + error);
    for (const Files& files : kLoadFiles) {
      FaultRun run = RunOf(files, kLoad, errors);
      run.check = [&](int status, const std::string& what) {
        SCOPED_TRACE(files.name + (": " + what));
        const std::optional<unsigned int> state = LoadedState(kLoad.tree);
        ASSERT_TRUE(state == 5U || state == 6U) << "lost: state " << state.value_or(0);
        ASSERT_TRUE(state == 6U || status != 0) << "success was reported";
        refused += state == 5U ? 1 : 0;
      };
      faults += ForEachFault(run);
    }
    EXPECT_GT(faults, 50);
    EXPECT_GT(refused, 10);
    Figure("%d failing system calls of loads, %d of which forbid the next save: no stale tree saved", faults, refused);
  });
}

TEST(Prove, RegistrySavers) {
  const FaultRoot root;
  root.Run([] {
    // Another one finishes its save between the opening and the locking of its file: that file is left alone.
    Prepare(kFiles[0], kSmall);
    Write(kNew, StateText(7, kSmall));
    EXPECT_TRUE(SaveWhile("flock", "O_NOFOLLOW", [] { ASSERT_EQ(::rename(kNew, kRegistry), 0); }));
    EXPECT_EQ(StateOf(kRegistry, kSmall), 6U);
    EXPECT_EQ(StateOf(kOld, kSmall), 7U);
    // Somebody without a lock replaces the file that is being written: his does not become the registry.
    Prepare(kFiles[0], kSmall);
    EXPECT_FALSE(SaveWhile("fsync", "F_DUPFD", [] {
      ::unlink(kNew);
      Write(kNew, StateText(8, kSmall));
    }));
    EXPECT_EQ(StateOf(kRegistry, kSmall), 5U);
    EXPECT_EQ(StateOf(kNew, kSmall), 8U) << "it is not ours to remove";

    ASSERT_EQ(::mount("tmpfs", "/etc/pelrix", "tmpfs", 0, "size=64m"), 0);
    Write(kRegistry, StateText(kSavers, TreeOfSaver(0)));
    auto& progress = *static_cast<Progress*>(
        ::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    progress[0] = 1;
    std::array<pid_t, kSavers> savers{};
    std::array<int, kSavers> seen{};
    const auto start = [&](unsigned int saver) {
      savers[saver] = ::fork();
      if (savers[saver] == 0) SaveForEver(saver, progress);
    };
    const auto stop = [&](unsigned int saver) {
      ::kill(savers[saver], SIGKILL);
      ::waitpid(savers[saver], nullptr, 0);
    };
    const auto check = [&] {
      std::optional<unsigned int> state = StateOf(kRegistry, TreeOfSaver);
      if (!state && ::access(kRegistry, F_OK) != 0) state = StateOf(kOld, TreeOfSaver);
      if (!state) state = StateOf(kRegistry, TreeOfSaver);  // was between the renames
      ASSERT_TRUE(state.has_value()) << "torn or mixed";
      ASSERT_LE(*state / kSavers, progress[*state % kSavers]) << "nobody saved this";
      ++seen[*state % kSavers];
    };
    for (unsigned int saver = 0; saver < kSavers; ++saver)
      start(saver);
    std::mt19937 random(std::random_device{}());
    int kills = 0;
    int loads = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(Rounds(60, 3));
    while (std::chrono::steady_clock::now() < end && !HasFailure()) {
      ::usleep(static_cast<useconds_t>(random() % 20000));
      const auto saver = static_cast<unsigned int>(random() % kSavers);
      if (random() % 4 == 0) {  // stopped in the middle of whatever it does, perhaps with the lock
        ::kill(savers[saver], SIGSTOP);
        ::usleep(static_cast<useconds_t>(random() % 40000));
        ::kill(savers[saver], SIGCONT);
      } else if (random() % 4 == 0) {
        stop(saver);
        ++kills;
        check();
        start(saver);
      }
      check();
      ++loads;
    }
    unsigned int saves = 0;
    for (unsigned int saver = 0; saver < kSavers; ++saver) {
      stop(saver);
      EXPECT_GT(seen[saver], 0) << saver;
      saves += progress[saver];
    }
    check();
    Figure("%u saves of four processes at once, %d kills: %d loads, each of a whole tree that one of them saved", saves,
           kills, loads);
  });
}
