// registry export: as JSON, or in the text form of its file.

#include <algorithm>

#include "ravctl/answer/json.h"
#include "ravctl/base/files.h"
#include "ravctl/base/text.h"
#include "ravctl/commands/registry/group.h"
#include "ravctl/registry/store_export.h"
#include "ravctl/registry/store_files.h"

namespace ravctl {

namespace {

struct Options {
  std::string key;
  std::string format = "json";
  std::string output;
};

std::string PrintableLines(std::string_view text) {
  std::string lines;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    AppendPrintable(lines, text.substr(0, end));
    lines += '\n';
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

ExitCode Run(const Options& options, Output& out) {
  const bool isStoreForm = options.format == "store";
  if (isStoreForm && out.IsJson()) {
    throw CommandError(ExitCode::kUsage, "the store's form is no JSON", "--format store --json",
                       "leave one of them out");
  }
  const StorePath path = ParseStorePath(options.key);
  const LoadedStore store = LoadStore(out);
  StoreKey exported;
  MakeStoreKey(exported, path) = RequireKey(store.root, path);
  const std::string text = isStoreForm ? StoreText(exported) : ExportText(exported);
  if (!options.output.empty()) {
    WriteNewFile(options.output, text);
    out.Print(kExportSchema, "", ExportData(exported));
  } else {
    out.Print(kExportSchema, isStoreForm && out.IsTerminal() ? PrintableLines(text) : text, ExportData(exported));
  }
  return ExitCode::kDone;
}

}  // namespace

void AddRegistryExport(Command& registry) {
  auto options = std::make_shared<Options>();
  Command& command =
      registry.Add({"export",
                    "Write the registry as JSON, or in the text form of its file",
                    {{"ravctl registry export --output before.json", "to compare with or to import later"},
                     {"ravctl registry export --format store HKEY_USERS", "one key as the file has it"}}},
                   [options](Output& out) { return Run(*options, out); });
  command.Answers({&kExportSchema});
  command.AddWord("KEY", &options->key, "Path of a key; the usual is everything").offered = kKeyOffers;
  command.AddOption("--format", &options->format, "FORM", "json (the usual; without loss) or store",
                    OneOf({"json", "store"}));
  command.AddOption("--output", &options->output, "FILE",
                    "Into a new file of mode 0600; one that exists is not overwritten");
}

}  // namespace ravctl
