#include "ravctl/registry/live_store.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "platform/regular_file.h"
#include "ravctl/base/error.h"
#include "ravctl/base/files.h"
#include "ravctl/daemon/process.h"
#include "ravctl/registry/store_check.h"
#include "ravctl/registry/store_export.h"
#include "ravctl/registry/store_files.h"
#include "ravctl/registry/store_lock.h"
#include "registry/registry.h"

namespace ravctl {

namespace {

constexpr int kAttempts = 20;  // while others save

// Never destroyed: its end would save a tree whose change was given up half-way.
CRegistry& Library() {
  static CRegistry& registry = *new CRegistry;
  return registry;
}

// The library's tree becomes the target and counts as changed.
void FillLibrary(const StoreKey& target) {
  CRegistry& registry = Library();
  registry.Open("", nullptr);
  CRegistryNode& root = *registry.KeepKeyHandle();
  std::vector<std::string> names;
  {
    const CCriticalSectionLock lock(root);
    for (const RegistryEntry& entry : root.Entries())
      names.emplace_back(entry.Name());
  }
  for (const std::string& name : names) {
    CRegistryValue removed;
    root.Remove(name, removed);
  }
  FillNode(target, root);
  // No name: nothing is stored.
  const unsigned char nothing[sizeof(uint32_t)] = {};
  registry.Open("", nullptr);
  registry.SetValue(nullptr, nothing, sizeof nothing, kRegistryNumber);
}

// None also when it cannot be read: nothing of it can be compared then, and the library knows when not to save.
std::optional<std::string> RegistryFile() {
  std::string content;
  return ReadFileInto(kStoreFile, content) == 0 ? std::optional(std::move(content)) : std::nullopt;
}

StoreKey WhatFileHolds() {
  CRegistryNode node;
  CRegistry::ReadTree(kStoreFile, node);
  return CopyOfNode(node);
}

bool HasValue(const StoreKey& key) {
  return !key.values.empty() || std::ranges::any_of(key.keys, [](const auto& below) { return HasValue(below.second); });
}

// The library tells no reason but leaves the error number of the call that failed. A save is only believed when the
// file holds what was to be saved, and the backup what it was loaded from: a save that was on its way meanwhile would
// have come between them.
void Save(const LiveStore& before, const StoreKey& target, const StoreKey& expected) {
  errno = 0;
  CRegistry::SaveTree();
  const int error = errno;
  if (WhatFileHolds() != expected) {
    if (error != 0) throw SystemFailure("the registry could not be saved, it is as it was", kStoreDirectory, error);
    throw CommandError(ExitCode::kInternal, "the registry does not hold what was saved", kStoreFile,
                       "another process may have written it; look at registry.old and try again");
  }
  const bool isKept = before.loadedFrom == kStoreFile && before.file != StoreText(target);
  if (isKept && ReadFileIfThere(kStoreOld) != before.file) {
    throw CommandError(ExitCode::kInputDamaged,
                       "saved, but another process saved at the same moment, and what it wrote is in the backup alone",
                       kStoreOld, "ravctl registry diff /etc/pelrix/registry.old live shows it");
  }
}

void RefuseDamaged() {
  for (const char* path : kStartOrder) {
    const UniqueFd file = OpenRegularFile(path, O_RDONLY);
    const int error = file ? 0 : errno;
    if (error == ENOENT || error == ENOTDIR) continue;
    if (error != 0) throw SystemFailure("cannot read the registry", path, error);
    const StoreCheck check = CheckStore(ReadWholeFile(path));
    if (check.Damage() > 0) {
      throw CommandError(ExitCode::kInputDamaged, "the registry is damaged, a save would lose what cannot be read",
                         path, "see ravctl registry verify and recover, or give --force");
    }
    if (check.hasValueLine) return;
  }
}

}  // namespace

LiveStore LoadLiveStore() {
  LiveStore store;
  store.file = RegistryFile();  // first: a save in between must not go unnoticed
  CRegistryNode node;
  store.loadedFrom = LoadFirst(node);
  store.root = CopyOfNode(node);
  return store;
}

bool SaveLiveStore(const LiveStore& before, const StoreKey& target, Output& out) {
  const StoreKey expected = AsReadBack(target);
  FillLibrary(target);
  if (RegistryFile() != before.file) return false;
  Save(before, target, expected);
  for (const StoreChange& loss : CompareStores(target, expected))
    out.Warn("it does not fit into the registry file and is lost", PathText(loss.key) + ": " + loss.name.value_or(""));
  return true;
}

StoreEdit EditLiveStore(const std::function<StoreKey(const StoreKey& root)>& change, const WriteOptions& options,
                        Output& out) {
  WarnAboutDaemon(out);
  std::optional<StoreLock> lock;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const LiveStore before = LoadLiveStore();
    const StoreKey target = change(before.root);
    std::vector<StoreChange> changes = CompareStores(before.root, target);
    RequireKeepable(changes, target);
    if (changes.empty() || options.isDryRun) return {std::move(changes), false};
    if (!options.isForced) RefuseDamaged();
    if (lock && SaveLiveStore(before, target, out)) return {std::move(changes), true};
    if (!lock) lock.emplace();
  }
  throw CommandError(ExitCode::kInputMissing, "others save the registry all the time, nothing was written", kStoreFile,
                     "try again");
}

// A process that runs for long keeps its tree and writes it as a whole.
void WarnAboutDaemon(Output& out) {
  const std::optional<DaemonProcess> daemon = FindDaemon();
  if (!daemon) return;
  out.Warn("the daemon runs: it and its modules keep the registry in memory and may write their own over this change",
           "process " + std::to_string(daemon->pid), "stop it first, or restart it now and look again");
}

void RequireKeepable(const std::vector<StoreChange>& changes, const StoreKey& target) {
  if (!changes.empty() && !HasValue(target)) {
    throw CommandError(ExitCode::kUsage, "a registry without any value is not loaded, the old one would come back",
                       kStoreFile, "leave one value");
  }
  for (const StoreChange& change : changes) {
    if (change.kind == StoreChange::Kind::kRemoved) continue;
    const StoreValue* value = change.after ? &*change.after : nullptr;
    const std::string why = WhyNotKept(change.name ? *change.name : change.key.back(), value);
    if (!why.empty()) {
      throw CommandError(ExitCode::kUsage, "the registry cannot keep " + why,
                         PathText(change.key) + (change.name ? ": " + *change.name : ""), "nothing was written");
    }
  }
}

}  // namespace ravctl
