// registry tree: the keys below a key.

#include "ravctl/answer/json.h"
#include "ravctl/commands/registry/group.h"
#include "ravctl/registry/store_files.h"

namespace ravctl {

namespace {

struct Options {
  std::string key;
  bool hasValues = false;
  unsigned int depth = kMaxStoreDepth;
};

void AddBranch(const StorePath& path, const StoreKey& key, const Options& options, unsigned int depth,
               std::optional<size_t> parent, Table& table) {
  Json row = KeyRow(path, key);
  row["parent"] = parent ? Json(*parent) : Json();
  if (path.empty()) row["name"] = "\\";
  const size_t here = table.Add(std::move(row), parent);
  if (depth >= options.depth) return;
  if (options.hasValues) {
    for (const auto& [name, value] : key.values) {
      Json leaf = ValueRow(path, name, value);
      leaf["parent"] = here;
      table.Add(std::move(leaf), here);
    }
  }
  for (const auto& [name, below] : key.keys) {
    StorePath longer = path;
    longer.push_back(name);
    AddBranch(longer, below, options, depth + 1, here, table);
  }
}

ExitCode Run(const Options& options, Output& out) {
  const StorePath path = ParseStorePath(options.key);
  const LoadedStore store = LoadStore(out);
  Table table(kRegistryTree);
  AddBranch(path, RequireKey(store.root, path), options, 0, std::nullopt, table);
  out.Print(kRegistryTree, table);
  return ExitCode::kDone;
}

}  // namespace

void AddRegistryTree(Command& registry) {
  auto options = std::make_shared<Options>();
  Command& tree = registry.Add({"tree",
                                "Show the keys below a key as a tree",
                                {{"ravctl registry tree --depth 2", "the upper levels"},
                                 {"ravctl registry tree --values HKEY_LOCAL_MACHINE", "with the values"}}},
                               [options](Output& out) { return Run(*options, out); });
  tree.Answers({&kRegistryTree});
  tree.AddWord("KEY", &options->key, "Path of the key; the usual is the root").offered = kKeyOffers;
  tree.AddOption("--depth", &options->depth, "N", "So many levels below the key");
  tree.AddFlag("--values", &options->hasValues, "With the values");
}

}  // namespace ravctl
