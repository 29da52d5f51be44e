#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "ravctl/line/command.h"
#include "ravctl/registry/store_tree.h"

namespace ravctl {

// registry get, set, del, list, tree, find, export, import, diff, verify, recover
void RegisterRegistry(CLI::App& root);

// One command a file; registry is the group.
void AddRegistryRead(CLI::App& registry);  // get, list, tree
void AddRegistryFind(CLI::App& registry);
void AddRegistryWrite(CLI::App& registry);  // set, del
void AddRegistryExport(CLI::App& registry);
void AddRegistryImport(CLI::App& registry);
void AddRegistryDiff(CLI::App& registry);
void AddRegistryVerify(CLI::App& registry);
void AddRegistryRecover(CLI::App& registry);

// What the commands share

// The key; throws CommandError (nothing found) with the nearest name when there is none.
const StoreKey& RequireKey(const StoreKey& root, const StorePath& path);
// Throws CommandError (nothing found) with the nearest name.
const StoreValue& RequireValue(const StoreKey& key, const StorePath& path, const std::string& name);

// A row of get, list and find: {key, name, type, value, number, subkeys, values}.
Json ValueRow(const StorePath& path, const std::string& name, const StoreValue& value);
Json KeyRow(const StorePath& path, const StoreKey& key);
std::vector<Column> EntryColumns();

// A row for each change: {change, key, name, old_type, old_value, type, value}.
Table ChangeTable(const std::vector<StoreChange>& changes);

// The answer of a command that writes: {written, file, changes}.
void PrintChanges(const Schema& schema, const std::vector<StoreChange>& changes, bool isWritten, Output& out);
// --dry-run and --force.
void AddWriteOptions(CLI::App& command, bool& isDryRun, bool& isForced);

// --type, checked.
CLI::Option* AddTypeOption(CLI::App& command, std::string& type, const std::string& meaning);

}  // namespace ravctl
