// What the commands of the registry share.

#include "ravctl/commands/registry/group.h"

#include "ravctl/answer/json.h"
#include "ravctl/base/text.h"
#include "ravctl/registry/store_files.h"

namespace ravctl {

namespace {

template <typename Entries>
std::string NearName(const Entries& entries, const std::string& name) {
  std::vector<std::string> names;
  for (const auto& entry : entries)
    names.push_back(entry.first);
  return DidYouMean(name, names, "see ravctl registry list");
}

Json TypeOf(const std::optional<StoreValue>& value) {
  return value ? Json(TypeText(value->type)) : Json();
}

Json TextOf(const std::optional<StoreValue>& value) {
  return value ? Json(ValueText(*value)) : Json();
}

}  // namespace

const StoreKey& RequireKey(const StoreKey& root, const StorePath& path) {
  StorePath above;
  const StoreKey* key = &root;
  for (const std::string& name : path) {
    const StoreKey* below = FindStoreKey(*key, {name});
    above.push_back(name);
    if (below == nullptr) {
      throw CommandError(ExitCode::kNothingOrDifferent, "there is no such key", PathText(above),
                         NearName(key->keys, name));
    }
    key = below;
  }
  return *key;
}

const StoreValue& RequireValue(const StoreKey& key, const StorePath& path, const std::string& name) {
  const auto found = key.values.find(name);
  if (found != key.values.end()) return found->second;
  throw CommandError(ExitCode::kNothingOrDifferent, "there is no such value", PathText(path) + ": " + name,
                     NearName(key.values, name));
}

Json ValueRow(const StorePath& path, const std::string& name, const StoreValue& value) {
  return {{"key", PathText(path)},
          {"name", name},
          {"type", TypeText(value.type)},
          {"value", ValueText(value)},
          {"number", value.type == kRegistryNumber ? Json(value.number) : Json()}};
}

Json KeyRow(const StorePath& path, const StoreKey& key) {
  return {{"key", PathText(path)},
          {"name", path.empty() ? "" : path.back()},
          {"type", "key"},
          {"value", std::to_string(key.values.size()) + " values, " + std::to_string(key.keys.size()) + " keys"},
          {"number", nullptr}};
}

Table ChangeTable(const std::vector<StoreChange>& changes) {
  Table table(kRegistryDiff);
  for (const StoreChange& change : changes) {
    table.Add({{"change", ChangeText(change.kind)},
               {"key", PathText(change.key)},
               {"name", change.name ? Json(*change.name) : Json()},
               {"old_type", TypeOf(change.before)},
               {"old_value", TextOf(change.before)},
               {"type", TypeOf(change.after)},
               {"value", TextOf(change.after)}});
  }
  return table;
}

void AddWriteOptions(Command& command, WriteOptions& options) {
  command.AddFlag("--dry-run", &options.isDryRun, "Show the changes and write nothing");
  command.AddFlag("--force", &options.isForced,
                  "Write even though the registry is damaged and loses what cannot be read");
}

ExitCode RunEdit(const Schema& schema, const std::function<StoreKey(const StoreKey& root)>& change,
                 const WriteOptions& options, Output& out) {
  const StoreEdit edit = EditLiveStore(change, options, out);
  const Table table = ChangeTable(edit.changes);
  out.Print(schema, table, {{"written", edit.isWritten}, {"file", kStoreFile}, {"changes", table.ToJson()}});
  return ExitCode::kDone;
}

void AddTypeOption(Command& command, std::string& type, const std::string& meaning) {
  command.AddOption("--type", &type, "TYPE", meaning, OneOf({"string", "expand", "number", "binary"}));
}

}  // namespace ravctl
