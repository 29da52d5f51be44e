// registry list: the values and subkeys of a key.

#include "ravctl/answer/json.h"
#include "ravctl/commands/registry/group.h"
#include "ravctl/registry/store_files.h"

namespace ravctl {

namespace {

struct Options {
  std::string key;
  bool isRecursive = false;
};

void ListKey(const StorePath& path, const StoreKey& key, bool isRecursive, Table& table) {
  for (const auto& [name, value] : key.values)
    table.Add(ValueRow(path, name, value));
  for (const auto& [name, below] : key.keys) {
    StorePath longer = path;
    longer.push_back(name);
    table.Add(KeyRow(longer, below));
    if (isRecursive) ListKey(longer, below, true, table);
  }
}

ExitCode Run(const Options& options, Output& out) {
  const StorePath path = ParseStorePath(options.key);
  const LoadedStore store = LoadStore(out);
  Table table(kRegistryList);
  ListKey(path, RequireKey(store.root, path), options.isRecursive, table);
  out.Print(kRegistryList, table);
  return table.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddRegistryList(Command& registry) {
  auto options = std::make_shared<Options>();
  Command& list = registry.Add({"list",
                                "List the values and subkeys of a key",
                                {{"ravctl registry list", "the root keys"},
                                 {"ravctl registry list -r HKEY_LOCAL_MACHINE", "everything below one"}}},
                               [options](Output& out) { return Run(*options, out); });
  list.Answers({&kRegistryList});
  list.AddWord("KEY", &options->key, "Path of the key; the usual is the root").offered = kKeyOffers;
  list.AddFlag("-r,--recursive", &options->isRecursive, "With all that is below");
}

}  // namespace ravctl
