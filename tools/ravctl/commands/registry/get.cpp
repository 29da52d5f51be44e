// registry get: one value.

#include "ravctl/answer/json.h"
#include "ravctl/base/text.h"
#include "ravctl/commands/registry/group.h"
#include "ravctl/registry/store_files.h"
#include "registry/registry_strings.h"

namespace ravctl {

namespace {

struct Options {
  std::string key;
  std::string name;
  bool isRaw = false;
  bool expands = false;
};

ExitCode Run(const Options& options, Output& out) {
  if (options.isRaw && out.IsJson()) {
    throw CommandError(ExitCode::kUsage, "--raw gives bytes, not JSON", "--raw --json", "leave one of them out");
  }
  const StorePath path = ParseStorePath(options.key);
  const LoadedStore store = LoadStore(out);
  StoreValue value = RequireValue(RequireKey(store.root, path), path, options.name);
  if (options.expands && value.type == kRegistryExpandString) value.data = ExpandEnvironment(value.data);
  if (options.isRaw) {
    const std::string text = value.type == kRegistryNumber ? ValueText(value) : value.data;
    out.Print(kRegistryGet, out.IsTerminal() ? Printable(text) : text, nullptr);
    return ExitCode::kDone;
  }
  Table table(kRegistryGet);
  table.Add(ValueRow(path, options.name, value));
  out.Print(kRegistryGet, table);
  return ExitCode::kDone;
}

}  // namespace

void AddRegistryGet(Command& registry) {
  auto options = std::make_shared<Options>();
  Command& get = registry.Add({"get",
                               "Show one value",
                               {{"ravctl registry get 'HKEY_LOCAL_MACHINE\\SOFTWARE\\Agent' Port", "value and type"},
                                {"ravctl registry get --raw HKEY_LOCAL_MACHINE/SOFTWARE/Agent Port", "for a script"}}},
                              [options](Output& out) { return Run(*options, out); });
  get.Answers({&kRegistryGet});
  get.AddRequired("KEY", &options->key, "Path of the key from a root key on; \\ is the root").offered = kKeyOffers;
  get.AddRequired("NAME", &options->name, "Name of the value");
  get.AddFlag("--raw", &options->isRaw, "The text, number or bytes alone, without a newline");
  get.AddFlag("--expand", &options->expands, "With %NAME% in expandable texts replaced from the environment");
}

}  // namespace ravctl
