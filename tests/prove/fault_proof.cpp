// Registry files whose reading and writing fails, or is killed, loses power or meets others that do the same.

#include <sys/mman.h>
#include <sys/mount.h>

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <random>

#include "prove/faults.h"
#include "support/registry_state.h"
#include "support/trace_capture.h"

namespace {

constexpr StateTree kMedium = {150, 1000};  // several reads

// The state behind the one that is loaded; 0 stands for nothing. Exit status 0: the save was reported as done.
[[noreturn]] void SaveNextState(const StateTree& tree, bool isLoadWatched) {
  if (isLoadWatched) ::getppid();
  CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
  if (isLoadWatched) ::getppid();
  std::string text;
  registry.QueryValue(text, "Value1000");
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
  StateTree tree;
  bool isLoadWatched;
};
constexpr Worker kSave = {"save", kSmallTree, false};
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

std::string FileText(unsigned int state, const StateTree& tree) {
  return state == kBad ? "[HKEY_LOCAL_MACHINE]\nVal" : StateText(state, tree);
}

void Prepare(const Files& files, const StateTree& tree) {
  const std::pair<const char*, unsigned int> states[] = {
      {kRegistry, files.registry}, {kOld, files.old}, {kDefault, files.byDefault}};
  for (const auto& [path, state] : states) {
    ::unlink(path);
    if (state != kNone) WriteWholeFile(path, FileText(state, tree));
  }
  ::unlink(kNew);
  if (files.hasNew) WriteWholeFile(kNew, StateText(77, tree) + "left over");
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
  struct Node {
    std::string synced;
    std::string text;

    // What is found when so many halves of what came after the sync reached the disk.
    std::string After(size_t halves) const {
      const size_t begin = text.starts_with(synced) ? synced.size() : 0;
      return halves == 0 ? synced : text.substr(0, begin + (text.size() - begin) * halves / 2);
    }
  };
  using Names = std::map<std::string, std::shared_ptr<Node>>;
  struct Change {
    std::string from;            // empty: a new file
    std::string to;              // empty: removed
    bool isGone = false;         // the name that it had
    std::shared_ptr<Node> made;  // the new file
  };
  Names names;  // as synced
  std::vector<Change> pending;
  Names open;  // by descriptor; no node: the directory

  void Take(const std::string& line) {
    if (line.find(" = -1 ") != std::string::npos) return;
    const std::string result = line.substr(line.rfind(" = ") + 3);
    const std::vector<std::string> texts = Texts(line);
    const std::string fd = line.substr(line.find('(') + 1, line.find_first_of(",)") - line.find('(') - 1);
    const std::shared_ptr<Node> node = open.contains(fd) ? open[fd] : nullptr;
    if (line.starts_with("openat") && line.find("O_CREAT") != std::string::npos) {
      Names now = After(All());
      const bool isMade = !now.contains(texts[0]);
      open[result] = isMade ? std::make_shared<Node>() : now[texts[0]];
      if (isMade) pending.push_back({"", texts[0], false, open[result]});
    } else if (line.starts_with("openat") && line.find("O_DIRECTORY") != std::string::npos) {
      open[result] = nullptr;
    } else if (line.find("F_DUPFD") != std::string::npos && node) {
      open[result] = node;
    } else if (line.starts_with("ftruncate") && node) {
      node->text.clear();
    } else if (line.starts_with("write(") && node) {
      node->text += texts[0];
    } else if (line.starts_with("fsync") && node) {
      node->synced = node->text;
    } else if (line.starts_with("fsync") && open.contains(fd)) {
      names = After(All());
      pending.clear();
    } else if (line.starts_with("rename") || line.starts_with("link")) {
      pending.push_back({texts[0], texts[1], line.starts_with("rename"), nullptr});
    } else if (line.starts_with("unlink")) {
      pending.push_back({texts[0], "", true, nullptr});
    } else if (line.starts_with("close")) {
      open.erase(fd);
    }
  }

  size_t All() const { return (size_t{1} << pending.size()) - 1; }

  // The names when that subset of the changes reached the disk.
  Names After(size_t subset) const {
    // What each name meant when its change was asked for does not depend on what reached the disk.
    Names asked = names;
    Names after = names;
    for (size_t number = 0; number < pending.size(); ++number) {
      const Change& change = pending[number];
      const std::shared_ptr<Node> node = change.made ? change.made : asked[change.from];
      if (change.isGone) asked.erase(change.from);
      if (!change.to.empty()) asked[change.to] = node;
      if (((subset >> number) & 1) == 0) continue;
      if (change.isGone) after.erase(change.from);
      if (change.to.empty()) continue;
      // Where the change before it did not reach the disk, a renamed node still has the name from before that.
      const auto isNamed = [&node](const auto& entry) { return entry.second == node; };
      if (change.isGone && std::ranges::count_if(names, isNamed) <= 1) std::erase_if(after, isNamed);
      if (node) after[change.to] = node;
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
        WriteWholeFile(path, node->After(halves));
      const unsigned int before = files.State();
      const std::optional<unsigned int> state = LoadedState(kSmallTree);
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
    disk.names[path] = std::make_shared<Disk::Node>(Disk::Node{ReadWholeFile(path), ReadWholeFile(path)});
  }
  EXPECT_EQ(disk.names.empty(), files.State() == 0);
  return disk;
}

// Holds a save up before its first call of that name, does something when the calls before it hold that text, and
// tells whether the save was reported as done.
bool SaveWhile(const std::string& call, const char* text, const std::function<void()>& action) {
  WriteWholeFile("/calls", "");
  const pid_t saver = Start(Strace("inject=" + call + ":delay_enter=400000:when=1", kSave.name));
  EXPECT_TRUE(WaitUntil([text] { return ReadWholeFile("/calls").find(text) != std::string::npos; }));
  action();
  return WaitFor(saver) == 0;
}

// Four savers of trees of their own, which is told by the state of a tree.
constexpr unsigned int kSavers = 4;
using Progress = std::array<std::atomic<unsigned int>, kSavers>;

StateTree TreeOfSaver(unsigned int state) {
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
  for (const Worker& worker : {kSave, kLoad})
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

// With second names for files and without them; killed or without power at each call.
TEST(Prove, RegistryPowerLoss) {
  const FaultRoot root;
  root.Run([] {
    int states = 0;
    for (const Files& files : kFiles) {
      for (const char* way : {"trace=all", "inject=link:error=EPERM"}) {
        Prepare(files, kSmallTree);
        Disk disk = DiskOf(files);
        ASSERT_EQ(RunCommand(Strace(way, kSave.name, 100000)), 0);
        for (const SystemCall& call : ReadCalls()) {
          disk.Take(call.line);
          states += CheckPowerLoss(disk, files, false);
        }
        states += CheckPowerLoss(disk, files, true);
        ASSERT_FALSE(HasFailure());
      }
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
    Prepare(kFiles[0], kSmallTree);
    WriteWholeFile(kNew, StateText(7, kSmallTree));
    EXPECT_TRUE(SaveWhile("flock", "O_NOFOLLOW", [] { ASSERT_EQ(::rename(kNew, kRegistry), 0); }));
    EXPECT_EQ(StateOf(kRegistry, kSmallTree), 6U);
    EXPECT_EQ(StateOf(kOld, kSmallTree), 7U);
    // Somebody without a lock replaces the file that is being written: his does not become the registry.
    Prepare(kFiles[0], kSmallTree);
    EXPECT_FALSE(SaveWhile("fsync", "F_DUPFD", [] {
      ::unlink(kNew);
      WriteWholeFile(kNew, StateText(8, kSmallTree));
    }));
    EXPECT_EQ(StateOf(kRegistry, kSmallTree), 5U);
    EXPECT_EQ(StateOf(kNew, kSmallTree), 8U) << "it is not ours to remove";

    ASSERT_EQ(::mount("tmpfs", "/etc/pelrix", "tmpfs", 0, "size=64m"), 0);
    WriteWholeFile(kRegistry, StateText(kSavers, TreeOfSaver(0)));
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
      const std::optional<unsigned int> state = StateOf(kRegistry, TreeOfSaver);
      ASSERT_TRUE(state.has_value()) << "missing, torn or mixed";
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
      for (int load = 0; load < 50; ++load, ++loads)
        check();
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
