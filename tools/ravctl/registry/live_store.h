#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ravctl/answer/output.h"
#include "ravctl/registry/store_tree.h"

// The registry of this machine, changed through the library: its save with the old content kept as backup. Edits of
// several processes wait for each other (StoreLock); what a module saves between the loading and the save is not lost.
namespace ravctl {

// What the library loads at this moment; empty when there is nothing to load.
struct LiveStore {
  StoreKey root;
  std::string loadedFrom;           // empty: nowhere
  std::optional<std::string> file;  // what the registry file held, none when there was nothing to read
};
LiveStore LoadLiveStore();

// Saves the target, all or nothing: a save that failed leaves the registry file as it was. False when the registry file
// is not what it was when before was loaded: nothing is written then. What a damaged file brought in and no line can
// hold is lost and warned of. Throws CommandError; also when another process saved at the same moment, whose content is
// then the backup. The caller holds a StoreLock.
bool SaveLiveStore(const LiveStore& before, const StoreKey& target, Output& out);

struct WriteOptions {
  bool isDryRun = false;
  bool isForced = false;  // write even though the registry is damaged
};

struct StoreEdit {
  std::vector<StoreChange> changes;
  bool isWritten = false;
};

// Makes the registry what the function makes of it, unless that changes nothing or is not wanted. The function is
// called once without the lock, and then with it as often as others save meanwhile: the last call counts. Throws
// CommandError; usage for a change that the store cannot keep, damaged when a save would lose what cannot be read.
StoreEdit EditLiveStore(const std::function<StoreKey(const StoreKey& root)>& change, const WriteOptions& options,
                        Output& out);

// Warns when the daemon runs: it keeps a tree of its own.
void WarnAboutDaemon(Output& out);

// Throws CommandError (usage) for the first change that the store cannot keep, and for a target without any value: a
// start would not load it.
void RequireKeepable(const std::vector<StoreChange>& changes, const StoreKey& target);

}  // namespace ravctl
