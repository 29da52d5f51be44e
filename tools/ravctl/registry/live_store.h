#pragma once

#include <string>
#include <vector>

#include "platform/unique_fd.h"
#include "ravctl/answer/output.h"
#include "ravctl/registry/store_tree.h"

namespace ravctl {

// The registry of this machine, changed through the library: its tree, its save with the old content kept as backup.
// One object a process, since the tree is the process's own. Objects of several processes wait for each other, from
// the reading to the save, so that no change is lost between them.
class LiveStore {
 public:
  // Loads the tree. Warns when the daemon runs: it keeps a tree of its own.
  explicit LiveStore(Output& out);

  const StoreKey& Root() const { return m_Root; }

  // Throws CommandError when what the tree was loaded from is damaged, so that a save would lose what is in it.
  static void RefuseDamaged();

  // Makes the tree what is given and saves it, all or nothing: every name and value is looked at first, and a save that
  // failed leaves the registry file as it was. Nothing is written when nothing changes, unless forced. What a damaged
  // file brought in and no line can hold is lost and warned of. Throws CommandError; usage for a change that the store
  // cannot keep.
  void Replace(const StoreKey& target, bool isForced = false);

 private:
  Output& m_Out;
  UniqueFd m_Lock;  // of the store's directory
  StoreKey m_Root;
};

// Throws CommandError (usage) for the first change that the store cannot keep, and for a target without any value: a
// start would not load it.
void RequireKeepable(const std::vector<StoreChange>& changes, const StoreKey& target);

}  // namespace ravctl
