// registry get, list and tree: look at keys and values.

#include "ravctl/base/text.h"
#include "ravctl/commands/registry/group.h"
#include "ravctl/registry/store_files.h"
#include "registry/registry_strings.h"

namespace ravctl {

namespace {

struct GetOptions {
  std::string key;
  std::string name;
  bool isRaw = false;
  bool expands = false;
};

struct ListOptions {
  std::string key;
  bool isRecursive = false;
  bool hasValues = false;
  unsigned int depth = kMaxStoreDepth;
};

ExitCode RunGet(const GetOptions& options, Output& out) {
  if (options.isRaw && out.IsJson()) {
    throw CommandError(ExitCode::kUsage, "--raw gives bytes, not JSON", "--raw --json", "leave one of them out");
  }
  const StorePath path = ParseStorePath(options.key);
  const LoadedStore store = LoadStore(out);
  StoreValue value = RequireValue(RequireKey(store.root, path), path, options.name);
  if (options.expands && value.type == kRegistryExpandString) value.data = ExpandEnvironment(value.data);
  if (options.isRaw) {
    const std::string text = value.type == kRegistryNumber ? ValueText(value) : value.data;
    out.Print({"registry-get"}, out.IsTerminal() ? Printable(text) : text, nullptr);
    return ExitCode::kDone;
  }
  Table table(EntryColumns());
  table.Add(ValueRow(path, options.name, value));
  out.Print({"registry-get"}, table);
  return ExitCode::kDone;
}

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

ExitCode RunList(const ListOptions& options, Output& out) {
  const StorePath path = ParseStorePath(options.key);
  const LoadedStore store = LoadStore(out);
  Table table(EntryColumns());
  ListKey(path, RequireKey(store.root, path), options.isRecursive, table);
  out.Print({"registry-list"}, table);
  return table.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

void AddBranch(const StorePath& path, const StoreKey& key, const ListOptions& options, unsigned int depth,
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

ExitCode RunTree(const ListOptions& options, Output& out) {
  const StorePath path = ParseStorePath(options.key);
  const LoadedStore store = LoadStore(out);
  Table table({{.key = "name", .heading = "NAME"},
               {.key = "type", .heading = "TYPE"},
               {.key = "value", .heading = "VALUE"},
               {.key = "key", .heading = "KEY", .isUsual = false}});
  AddBranch(path, RequireKey(store.root, path), options, 0, std::nullopt, table);
  out.Print({"registry-tree"}, table);
  return ExitCode::kDone;
}

void AddGet(CLI::App& registry) {
  auto options = std::make_shared<GetOptions>();
  CLI::App& get = AddCommand(registry,
                             {"get",
                              "Show one value",
                              {{"ravctl registry get 'HKEY_LOCAL_MACHINE\\SOFTWARE\\Agent' Port", "value and type"},
                               {"ravctl registry get --raw HKEY_LOCAL_MACHINE/SOFTWARE/Agent Port", "for a script"}}},
                             [options](Output& out) { return RunGet(*options, out); });
  get.add_option("KEY", options->key, "Path of the key from a root key on; \\ is the root")->required();
  get.add_option("NAME", options->name, "Name of the value")->required();
  get.add_flag("--raw", options->isRaw, "The text, number or bytes alone, without a newline");
  get.add_flag("--expand", options->expands, "With %NAME% in expandable texts replaced from the environment");
}

void AddList(CLI::App& registry) {
  auto options = std::make_shared<ListOptions>();
  CLI::App& list = AddCommand(registry,
                              {"list",
                               "List the values and subkeys of a key",
                               {{"ravctl registry list", "the root keys"},
                                {"ravctl registry list -r HKEY_LOCAL_MACHINE", "everything below one"}}},
                              [options](Output& out) { return RunList(*options, out); });
  list.add_option("KEY", options->key, "Path of the key; the usual is the root");
  list.add_flag("-r,--recursive", options->isRecursive, "With all that is below");
}

void AddTree(CLI::App& registry) {
  auto options = std::make_shared<ListOptions>();
  CLI::App& tree = AddCommand(registry,
                              {"tree",
                               "Show the keys below a key as a tree",
                               {{"ravctl registry tree --depth 2", "the upper levels"},
                                {"ravctl registry tree --values HKEY_LOCAL_MACHINE", "with the values"}}},
                              [options](Output& out) { return RunTree(*options, out); });
  tree.add_option("KEY", options->key, "Path of the key; the usual is the root");
  tree.add_option("--depth", options->depth, "So many levels below the key")->type_name("N");
  tree.add_flag("--values", options->hasValues, "With the values");
}

}  // namespace

void AddRegistryRead(CLI::App& registry) {
  AddGet(registry);
  AddList(registry);
  AddTree(registry);
}

}  // namespace ravctl
