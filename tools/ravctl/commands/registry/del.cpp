// registry del: a value or a key goes.

#include "ravctl/commands/registry/group.h"
#include "ravctl/registry/live_store.h"
#include "ravctl/registry/store_files.h"

namespace ravctl {

namespace {

struct Options {
  std::string key;
  std::optional<std::string> name;  // without one it is the key
  bool isRecursive = false;
  WriteOptions write;
};

void DeleteKey(const Options& options, const StorePath& path, StoreKey& target) {
  if (path.empty()) throw CommandError(ExitCode::kUsage, "the root cannot be deleted", options.key, "name a key");
  const StoreKey& key = RequireKey(target, path);
  if (!options.isRecursive && !(key.values.empty() && key.keys.empty())) {
    throw CommandError(ExitCode::kUsage, "the key is not empty", PathText(path), "give -r for all that is below it");
  }
  const StorePath parent(path.begin(), path.end() - 1);
  MakeStoreKey(target, parent).keys.erase(path.back());
}

ExitCode Run(const Options& options, Output& out) {
  const StorePath path = ParseStorePath(options.key);
  const auto change = [&](const StoreKey& root) {
    StoreKey target = root;
    if (options.name) {
      RequireValue(RequireKey(target, path), path, *options.name);
      MakeStoreKey(target, path).values.erase(*options.name);
    } else {
      DeleteKey(options, path, target);
    }
    return target;
  };
  return RunEdit(kRegistryDel, change, options.write, out);
}

}  // namespace

void AddRegistryDel(Command& registry) {
  auto options = std::make_shared<Options>();
  Command& del = registry.Add({"del",
                               "Delete a value or a key",
                               {{"ravctl registry del 'HKEY_LOCAL_MACHINE\\SOFTWARE\\Agent' Port", "one value"},
                                {"ravctl registry del -r 'HKEY_LOCAL_MACHINE\\SOFTWARE\\Agent'", "a key, whole"}},
                               Effect::kChanges},
                              [options](Output& out) { return Run(*options, out); });
  del.Answers({&kRegistryDel});
  del.AddRequired("KEY", &options->key, "Path of the key").offered = kKeyOffers;
  del.AddWord("NAME", &options->name, "Name of the value; without one the key itself is deleted");
  del.AddFlag("-r,--recursive", &options->isRecursive, "A key with all that is below it");
  AddWriteOptions(del, options->write);
}

}  // namespace ravctl
