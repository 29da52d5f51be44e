#pragma once

#include <string>

#include "ravctl/line/command.h"
#include "ravctl/registry/live_store.h"
#include "ravctl/registry/store_tree.h"

namespace ravctl {

// ravctl registry ...
void AddRegistryGet(Command& registry);
void AddRegistrySet(Command& registry);
void AddRegistryDel(Command& registry);
void AddRegistryList(Command& registry);
void AddRegistryTree(Command& registry);
void AddRegistryFind(Command& registry);
void AddRegistryExport(Command& registry);
void AddRegistryImport(Command& registry);
void AddRegistryDiff(Command& registry);
void AddRegistryVerify(Command& registry);
void AddRegistryRecover(Command& registry);

// What they answer; what export does stands with its form.
extern const Schema kRegistryGet, kRegistrySet, kRegistryDel, kRegistryList, kRegistryTree, kRegistryFind,
    kRegistryImport, kRegistryDiff, kRegistryVerify, kRegistryRecover;

// What the completion offers for a KEY.
inline constexpr const char* kKeyOffers = "registry list -r -o key";

// What the commands share

// The key; throws CommandError (nothing found) with the nearest name when there is none.
const StoreKey& RequireKey(const StoreKey& root, const StorePath& path);
// Throws CommandError (nothing found) with the nearest name.
const StoreValue& RequireValue(const StoreKey& key, const StorePath& path, const std::string& name);

// A row of get, list and find.
Json ValueRow(const StorePath& path, const std::string& name, const StoreValue& value);
Json KeyRow(const StorePath& path, const StoreKey& key);

// A row for each change, as diff has them.
Table ChangeTable(const std::vector<StoreChange>& changes);

// --dry-run and --force.
void AddWriteOptions(Command& command, WriteOptions& options);

// Edits the registry and prints the changes.
ExitCode RunEdit(const Schema& schema, const std::function<StoreKey(const StoreKey& root)>& change,
                 const WriteOptions& options, Output& out);

// --type, checked.
void AddTypeOption(Command& command, std::string& type, const std::string& meaning);

}  // namespace ravctl
