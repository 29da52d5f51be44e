// registry recover: make the best file of the registry the current one.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/files.h"
#include "ravctl/base/times.h"
#include "ravctl/commands/registry/group.h"
#include "ravctl/registry/live_store.h"
#include "ravctl/registry/store_files.h"
#include "ravctl/registry/store_lock.h"
#include "ravctl/registry/store_survey.h"

namespace ravctl {

namespace {

constexpr mode_t kCopyMode = 0600;
constexpr int kMaxCopies = 100;  // of one second

struct Options {
  std::string from;
  bool isDryRun = false;
};

struct Copy {
  std::string file;
  std::string copy;
};

UniqueFd MakeCopyFile(const std::string& wanted, std::string& path) {
  for (int number = 1; number <= kMaxCopies; ++number) {
    path = wanted + (number > 1 ? "-" + std::to_string(number) : "");
    UniqueFd file(::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, kCopyMode));
    if (file || errno != EEXIST) return file;
  }
  return {};
}

// Down to the disk. A copy that could not be completed is taken away again.
Copy MakeCopy(const std::string& path, const std::string& stamp) {
  const std::string bytes = ReadWholeFile(path);
  Copy copy{path, ""};
  const UniqueFd file = MakeCopyFile(path + ".saved-" + stamp, copy.copy);
  if (!file) throw SystemFailure("cannot make a copy, nothing was replaced", copy.copy, errno);
  if (WriteAllAt(file.Get(), bytes, 0) && ::fsync(file.Get()) == 0) return copy;
  const int error = errno;
  ::unlink(copy.copy.c_str());
  throw SystemFailure("cannot make a copy, nothing was replaced", copy.copy, error);
}

// What the save takes the place of: the registry becomes its backup, the backup goes, registry.new is written anew.
std::vector<Copy> MakeCopies(const std::vector<StoreFileState>& files) {
  std::vector<Copy> copies;
  const std::string stamp = LocalTimeText(std::time(nullptr), "%Y%m%d-%H%M%S");
  for (const StoreFileState& file : files) {
    const bool isReplaced = file.path == kStoreFile || file.path == kStoreOld || file.path == kStoreNew;
    if (isReplaced && file.Exists()) copies.push_back(MakeCopy(file.path, stamp));
  }
  return copies;
}

StoreFileState Choose(const Options& options, const std::vector<StoreFileState>& files) {
  if (!options.from.empty()) {
    StoreFileState file = LookAtStoreFile(options.from);
    if (file.error != 0) throw SystemFailure("cannot read", options.from, file.error);
    if (file.check.hasValueLine) return file;
    throw CommandError(ExitCode::kInputDamaged, "the file holds no value", options.from, "choose another one");
  }
  const StoreFileState* best = BestStoreFile(files);
  if (best != nullptr) return *best;
  bool isAnyThere = false;
  for (const StoreFileState& file : files) {
    if (file.error == EACCES || file.error == EPERM)
      throw SystemFailure("cannot read the registry", file.path, file.error);
    isAnyThere = isAnyThere || file.Exists();
  }
  if (!isAnyThere) throw SystemFailure("there is no registry", kStoreFile, ENOENT);
  throw CommandError(ExitCode::kInputDamaged, "no file of the registry holds a value", kStoreDirectory,
                     "give one with --from");
}

void Print(const StoreFileState& from, const std::vector<Copy>& copies, const std::vector<StoreChange>& changes,
           bool isRecovered, Output& out) {
  Table table(kRegistryRecover);
  Json list = Json::array();
  for (const Copy& copy : copies) {
    list.push_back({{"file", copy.file}, {"copy", copy.copy}});
    table.Add({{"action", "copied"}, {"file", copy.file}, {"to", copy.copy}});
  }
  table.Add({{"action", isRecovered ? "recovered" : "chosen"}, {"file", from.path}, {"to", kStoreFile}});
  out.Print(kRegistryRecover, table,
            {{"recovered", isRecovered},
             {"from", from.path},
             {"copies", std::move(list)},
             {"changes", ChangeTable(changes).ToJson()}});
}

// What a recovery would do at this moment.
struct Plan {
  std::vector<StoreFileState> files;
  StoreFileState from;
  LiveStore before;
  StoreKey target;
  std::vector<StoreChange> changes;

  bool IsCurrent() const { return from.path == kStoreFile && from.IsWhole(); }
};

Plan MakePlan(const Options& options) {
  Plan plan;
  plan.before = LoadLiveStore();  // first: a save behind it is noticed
  plan.files = SurveyStore();
  plan.from = Choose(options, plan.files);
  plan.target = ReadStoreFile(plan.from.path);
  plan.changes = CompareStores(plan.before.root, plan.target);
  RequireKeepable(plan.changes, plan.target);
  return plan;
}

ExitCode Run(const Options& options, Output& out) {
  WarnAboutDaemon(out);
  std::optional<StoreLock> lock;
  Plan plan = MakePlan(options);
  if (!plan.IsCurrent() && !options.isDryRun) {
    lock.emplace();
    plan = MakePlan(options);
  }
  if (plan.from.check.Damage() > 0) {
    out.Warn("the file is damaged, what could be read of it is taken", plan.from.path, "see ravctl registry verify");
  }
  const bool isRecovered = !plan.IsCurrent() && lock;
  std::vector<Copy> copies;
  if (isRecovered) {
    copies = MakeCopies(plan.files);
    if (!SaveLiveStore(plan.before, plan.target, out)) {
      throw CommandError(ExitCode::kInputMissing, "another process saved the registry meanwhile, nothing was replaced",
                         kStoreFile, "look at it and try again");
    }
  }
  Print(plan.from, copies, plan.changes, isRecovered, out);
  return ExitCode::kDone;
}

}  // namespace

void AddRegistryRecover(Command& registry) {
  auto options = std::make_shared<Options>();
  Command& recover = registry.Add({"recover",
                                   "Make the best file of the registry the current one; copies of all that is replaced "
                                   "are kept beside it",
                                   {{"ravctl registry recover --dry-run", "tell which file is the best"},
                                    {"ravctl registry recover --from /etc/pelrix/registry.old", "go back one save"}},
                                   Effect::kChanges},
                                  [options](Output& out) { return Run(*options, out); });
  recover.Answers({&kRegistryRecover});
  recover.AddOption("--from", &options->from, "FILE", "Take this file: one of the registry or a copy of one");
  recover.AddFlag("--dry-run", &options->isDryRun, "Tell which file would be taken, and write nothing");
}

}  // namespace ravctl
