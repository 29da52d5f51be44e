// registry find: search names and values.

#include "ravctl/answer/json.h"
#include "ravctl/commands/registry/group.h"
#include "ravctl/registry/store_files.h"
#include "ravctl/registry/store_search.h"

namespace ravctl {

namespace {

struct Options {
  StoreQuery query;
  std::string below;
};

ExitCode Run(const Options& options, Output& out) {
  const StorePath path = ParseStorePath(options.below);
  const LoadedStore store = LoadStore(out);
  Table found(kRegistryFind);
  const StoreHits hits{[&found](const StorePath& key, const std::string& name, const StoreValue& value) {
                         found.Add(ValueRow(key, name, value));
                       },
                       [&found](const StorePath& key, const StoreKey& content) { found.Add(KeyRow(key, content)); }};
  SearchStore(options.query, path, RequireKey(store.root, path), hits);
  out.Print(kRegistryFind, found);
  return found.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddRegistryFind(Command& registry) {
  auto options = std::make_shared<Options>();
  Command& find =
      registry.Add({"find",
                    "Search the names of keys and values, and the values",
                    {{"ravctl registry find 3172", "whatever holds that text"},
                     {"ravctl registry find '*Port' --in name --not '*Proxy*'", "values of such names, but for some"},
                     {"ravctl registry find '*' --type number --below HKEY_LOCAL_MACHINE", "all numbers of a key"}}},
                   [options](Output& out) { return Run(*options, out); });
  find.Answers({&kRegistryFind});
  find.AddRequired("PATTERN", &options->query.patterns,
                   "Text within a name or value; with * ? or [ a pattern for the whole; one of several is enough");
  find.AddOption("--not", &options->query.notPatterns, "PATTERN", "Leave out what matches this as well");
  find.AddOption("--in", &options->query.places, "PLACE",
                 "Look at this alone: key (names of keys), name (of values) or value; may be repeated",
                 OneOf({"key", "name", "value"}));
  AddTypeOption(find, options->query.type, "Values of this type alone: string, expand, number, binary");
  find.AddOption("--below", &options->below, "KEY", "Search below this key alone");
  find.AddFlag("-i,--ignore-case", &options->query.ignoresCase, "Capital and small letters are the same");
  find.AddFlag("-v,--invert", &options->query.isInverted, "What does not match");
}

}  // namespace ravctl
