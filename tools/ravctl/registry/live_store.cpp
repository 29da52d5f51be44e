#include "ravctl/registry/live_store.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/regular_file.h"
#include "ravctl/base/error.h"
#include "ravctl/base/files.h"
#include "ravctl/daemon/process.h"
#include "ravctl/registry/store_check.h"
#include "ravctl/registry/store_export.h"
#include "ravctl/registry/store_files.h"
#include "registry/registry.h"

namespace ravctl {

namespace {

// Never destroyed: its end would save a tree whose change was given up half-way.
CRegistry& Library() {
  static CRegistry& registry = *new CRegistry;
  return registry;
}

CRegistryNode& LibraryRoot() {
  CRegistry& registry = Library();
  registry.Open("", nullptr);
  return *registry.KeepKeyHandle();
}

// A separator behind each name keeps a slash within one.
std::string LibraryPath(const StorePath& path) {
  std::string text;
  for (const std::string& name : path)
    text += name + "\\";
  return text;
}

[[noreturn]] void ThrowLibraryFailure(const char* what, const StorePath& path, const std::string& name) {
  throw CommandError(ExitCode::kInternal, what, PathText(path) + (name.empty() ? "" : ": " + name),
                     "nothing was written");
}

void SetLibraryValue(CRegistry& registry, const StorePath& path, const std::string& name, const StoreValue& value) {
  std::string bytes = value.data;
  if (value.type == kRegistryNumber) {
    bytes.resize(sizeof value.number);
    std::memcpy(bytes.data(), &value.number, sizeof value.number);
  }
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  if (!registry.SetValue(name.c_str(), data, static_cast<unsigned int>(bytes.size()), value.type)) {
    ThrowLibraryFailure("the library refuses the value", path, name);
  }
}

void OpenLibraryKey(CRegistry& registry, const StorePath& path) {
  if (registry.Open(LibraryPath(path).c_str(), nullptr) != CRegistry::kSuccess) {
    ThrowLibraryFailure("the library does not open the key", path, "");
  }
}

void ApplyValues(CRegistry& registry, const StorePath& path, const StoreKey& before, const StoreKey& after) {
  OpenLibraryKey(registry, path);
  for (const auto& [name, value] : before.values)
    if (!after.values.contains(name)) registry.DeleteValue(name.c_str());
  for (const auto& [name, key] : before.keys)
    if (!after.keys.contains(name)) registry.DeleteKey(name.c_str());
  for (const auto& [name, value] : after.values) {
    const auto old = before.values.find(name);
    if (old == before.values.end() || old->second != value) SetLibraryValue(registry, path, name, value);
  }
}

void Apply(CRegistry& registry, const StorePath& path, const StoreKey& before, const StoreKey& after) {
  static const StoreKey nothing;
  if (before == after) return;
  ApplyValues(registry, path, before, after);
  for (const auto& [name, key] : after.keys) {
    StorePath longer = path;
    longer.push_back(name);
    const StoreKey* old = FindStoreKey(before, {name});
    if (old == nullptr) {
      OpenLibraryKey(registry, path);
      if (registry.CreateKey(nullptr, (name + "\\").c_str()) != CRegistry::kSuccess) {
        ThrowLibraryFailure("the library does not create the key", longer, "");
      }
    }
    Apply(registry, longer, old != nullptr ? *old : nothing, key);
  }
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
// file holds what was to be saved.
void Save(const StoreKey& expected) {
  errno = 0;
  CRegistry::SaveTree();
  const int error = errno;
  if (WhatFileHolds() == expected) return;
  if (error != 0) throw SystemFailure("the registry could not be saved, it is as it was", kStoreDirectory, error);
  throw CommandError(ExitCode::kInternal, "the registry does not hold what was saved", kStoreFile,
                     "another process may have written it; look at registry.old and try again");
}

// Waits for other changes to end. A directory that cannot be opened has nothing to lock either.
UniqueFd LockStore() {
  UniqueFd directory(::open(kStoreDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  while (directory && ::flock(directory.Get(), LOCK_EX) != 0 && errno == EINTR) {
  }
  return directory;
}

// A process that runs for long keeps its tree and writes it as a whole.
void WarnAboutDaemon(Output& out) {
  const std::optional<DaemonProcess> daemon = FindDaemon();
  if (!daemon) return;
  out.Warn("the daemon runs: it and its modules keep the registry in memory and may write their own over this change",
           "process " + std::to_string(daemon->pid), "stop it first, or restart it now and look again");
}

}  // namespace

LiveStore::LiveStore(Output& out) : m_Out(out), m_Lock(LockStore()) {
  WarnAboutDaemon(out);
  m_Root = CopyOfNode(LibraryRoot());
}

void LiveStore::RefuseDamaged() {
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

void LiveStore::Replace(const StoreKey& target, bool isForced) {
  const std::vector<StoreChange> changes = CompareStores(m_Root, target);
  if (changes.empty() && !isForced) return;
  RequireKeepable(changes, target);
  const StoreKey expected = AsReadBack(target);
  CRegistry& registry = Library();
  Apply(registry, {}, m_Root, target);
  if (isForced) {
    // No name: nothing is stored, but the tree counts as changed.
    const unsigned char nothing[sizeof(uint32_t)] = {};
    OpenLibraryKey(registry, {});
    registry.SetValue(nullptr, nothing, sizeof nothing, kRegistryNumber);
  }
  Save(expected);
  for (const StoreChange& loss : CompareStores(target, expected))
    m_Out.Warn("it does not fit into the registry file and is lost",
               PathText(loss.key) + ": " + loss.name.value_or(""));
  m_Root = expected;
}

}  // namespace ravctl
