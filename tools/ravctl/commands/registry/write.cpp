// registry set and del: change single values and keys.

#include "ravctl/commands/registry/group.h"
#include "ravctl/registry/live_store.h"
#include "ravctl/registry/store_files.h"

namespace ravctl {

namespace {

struct Options {
  std::string key;
  std::string name;
  std::string value;
  std::string type;
  bool isRecursive = false;
  bool isDryRun = false;
  bool isForced = false;
};

// The type that was given, else that of the value so far, else string.
uint32_t ChosenType(const Options& options, const StoreKey* key) {
  if (!options.type.empty()) return *ParseType(options.type);
  if (key == nullptr) return kRegistryString;
  const auto old = key->values.find(options.name);
  return old != key->values.end() ? old->second.type : static_cast<uint32_t>(kRegistryString);
}

ExitCode Finish(const Options& options, const Schema& schema, LiveStore& live, const StoreKey& target, Output& out) {
  const std::vector<StoreChange> changes = CompareStores(live.Root(), target);
  RequireKeepable(changes, target);
  const bool isWritten = !changes.empty() && !options.isDryRun;
  if (isWritten) {
    if (!options.isForced) LiveStore::RefuseDamaged();
    live.Replace(target);
  }
  PrintChanges(schema, changes, isWritten, out);
  return ExitCode::kDone;
}

ExitCode RunSet(const Options& options, Output& out) {
  const StorePath path = ParseStorePath(options.key);
  LiveStore live(out);
  const StoreKey* key = FindStoreKey(live.Root(), path);
  const uint32_t type = ChosenType(options, key);
  const std::optional<StoreValue> value = ParseValue(type, options.value);
  if (!value) {
    throw CommandError(ExitCode::kUsage, "it is no value of type " + std::string(TypeText(type)), options.value,
                       type == kRegistryNumber ? "give a number from -2147483648 to 4294967295, or 0x..."
                                               : "give two hexadecimal digits a byte");
  }
  if (key != nullptr && key->keys.contains(options.name)) {
    throw CommandError(ExitCode::kUsage, "a key has that name", PathText(path) + ": " + options.name,
                       "delete the key first");
  }
  for (StorePath above; above.size() < path.size();) {
    const StoreKey* parent = FindStoreKey(live.Root(), above);
    above.push_back(path[above.size()]);
    if (parent != nullptr && parent->values.contains(above.back())) {
      throw CommandError(ExitCode::kUsage, "a value stands where a key is wanted", PathText(above),
                         "delete the value first");
    }
  }
  StoreKey target = live.Root();
  MakeStoreKey(target, path).values[options.name] = *value;
  return Finish(options, {"registry-set"}, live, target, out);
}

void DeleteKey(const Options& options, const StorePath& path, StoreKey& target) {
  if (path.empty()) throw CommandError(ExitCode::kUsage, "the root cannot be deleted", options.key, "name a key");
  const StoreKey& key = RequireKey(target, path);
  if (!options.isRecursive && !(key.values.empty() && key.keys.empty())) {
    throw CommandError(ExitCode::kUsage, "the key is not empty", PathText(path), "give -r for all that is below it");
  }
  const StorePath parent(path.begin(), path.end() - 1);
  MakeStoreKey(target, parent).keys.erase(path.back());
}

ExitCode RunDel(const Options& options, bool hasName, Output& out) {
  const StorePath path = ParseStorePath(options.key);
  LiveStore live(out);
  StoreKey target = live.Root();
  if (hasName) {
    RequireValue(RequireKey(target, path), path, options.name);
    MakeStoreKey(target, path).values.erase(options.name);
  } else {
    DeleteKey(options, path, target);
  }
  return Finish(options, {"registry-del"}, live, target, out);
}

void AddSet(CLI::App& registry) {
  auto options = std::make_shared<Options>();
  CLI::App& set =
      AddCommand(registry,
                 {"set",
                  "Set a value; keys that are missing are made, and what is so already is not written",
                  {{"ravctl registry set 'HKEY_LOCAL_MACHINE\\SOFTWARE\\Agent' Port 3172 --type number", "a number"},
                   {"ravctl registry set HKEY_LOCAL_MACHINE/SOFTWARE/Agent Key '0a ff' --type binary", "two bytes"},
                   {"ravctl registry set HKEY_LOCAL_MACHINE/SOFTWARE/Agent Path /opt/x --dry-run", "show it only"}},
                  Effect::kChanges},
                 [options](Output& out) { return RunSet(*options, out); });
  set.add_option("KEY", options->key, "Path of the key from a root key on; \\ is the root")->required();
  set.add_option("NAME", options->name, "Name of the value")->required();
  set.add_option("VALUE", options->value,
                 "Text, number or bytes as two hexadecimal digits each; behind -- it may start "
                 "with a dash")
      ->required();
  AddTypeOption(set, options->type, "string, expand, number or binary; the usual is what the value is, else string");
  AddWriteOptions(set, options->isDryRun, options->isForced);
}

void AddDel(CLI::App& registry) {
  auto options = std::make_shared<Options>();
  auto hasName = std::make_shared<bool>(false);
  CLI::App& del = AddCommand(registry,
                             {"del",
                              "Delete a value or a key",
                              {{"ravctl registry del 'HKEY_LOCAL_MACHINE\\SOFTWARE\\Agent' Port", "one value"},
                               {"ravctl registry del -r 'HKEY_LOCAL_MACHINE\\SOFTWARE\\Agent'", "a key, whole"}},
                              Effect::kChanges},
                             [options, hasName](Output& out) { return RunDel(*options, *hasName, out); });
  del.add_option("KEY", options->key, "Path of the key")->required();
  del.add_option_function<std::string>(
      "NAME",
      [options, hasName](const std::string& name) {
        options->name = name;
        *hasName = true;
      },
      "Name of the value; without one the key itself is deleted");
  del.add_flag("-r,--recursive", options->isRecursive, "A key with all that is below it");
  AddWriteOptions(del, options->isDryRun, options->isForced);
}

}  // namespace

void AddRegistryWrite(CLI::App& registry) {
  AddSet(registry);
  AddDel(registry);
}

}  // namespace ravctl
