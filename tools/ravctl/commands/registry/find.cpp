// registry find: search names and values.

// GCC 12 sees a null pointer where CLI11 splits a text, and only in this file.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wnull-dereference"
#endif

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
  Table found(EntryColumns());
  const StoreHits hits{[&found](const StorePath& key, const std::string& name, const StoreValue& value) {
                         found.Add(ValueRow(key, name, value));
                       },
                       [&found](const StorePath& key, const StoreKey& content) { found.Add(KeyRow(key, content)); }};
  SearchStore(options.query, path, RequireKey(store.root, path), hits);
  out.Print({"registry-find"}, found);
  return found.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

CLI::Option& AddWordsOption(CLI::App& command, const char* name, std::vector<std::string>& words, const char* text) {
  return *command.add_option(name, words, text);
}

}  // namespace

void AddRegistryFind(CLI::App& registry) {
  auto options = std::make_shared<Options>();
  CLI::App& find =
      AddCommand(registry,
                 {"find",
                  "Search the names of keys and values, and the values",
                  {{"ravctl registry find 3172", "whatever holds that text"},
                   {"ravctl registry find '*Port' --in name --not '*Proxy*'", "values of such names, but for some"},
                   {"ravctl registry find '*' --type number --below HKEY_LOCAL_MACHINE", "all numbers of a key"}}},
                 [options](Output& out) { return Run(*options, out); });
  AddWordsOption(find, "PATTERN", options->query.patterns,
                 "Text within a name or value; with * ? or [ a pattern for the whole; one of several is enough")
      .required();
  AddWordsOption(find, "--not", options->query.notPatterns, "Leave out what matches this as well")
      .type_name("PATTERN")
      ->expected(1)
      ->take_all();
  AddWordsOption(find, "--in", options->query.places,
                 "Look at this alone: key (names of keys), name (of values) or value; may be repeated")
      .type_name("PLACE")
      ->expected(1)
      ->take_all()
      ->check(CLI::IsMember({"key", "name", "value"}).description(""));
  AddTypeOption(find, options->query.type, "Values of this type alone: string, expand, number, binary");
  find.add_option("--below", options->below, "Search below this key alone")->type_name("KEY");
  find.add_flag("-i,--ignore-case", options->query.ignoresCase, "Capital and small letters are the same");
  find.add_flag("-v,--invert", options->query.isInverted, "What does not match");
}

}  // namespace ravctl
