// registry export, import and diff: whole registries out, in and side by side.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "ravctl/base/text.h"
#include "ravctl/commands/registry/group.h"
#include "ravctl/registry/live_store.h"
#include "ravctl/registry/store_export.h"
#include "ravctl/registry/store_files.h"

namespace ravctl {

namespace {

struct ExportOptions {
  std::string key;
  std::string format = "json";
  std::string output;
};

struct ImportOptions {
  std::string file;
  bool merges = false;
  bool replaces = false;
  bool isDryRun = false;
  bool isForced = false;
};

struct DiffOptions {
  std::string before;
  std::string after;
};

// Complete or not there.
void WriteNewFile(const std::string& path, std::string_view text) {
  const UniqueFd file(::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file && errno == EEXIST) {
    throw CommandError(ExitCode::kUsage, "the file exists and is not overwritten", path, "choose another name");
  }
  if (!file) throw SystemFailure("cannot create the file", path, errno);
  if (WriteAllAt(file.Get(), text, 0) && ::fsync(file.Get()) == 0) return;
  const int error = errno;
  ::unlink(path.c_str());
  throw SystemFailure("cannot write the file", path, error);
}

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

ExitCode RunExport(const ExportOptions& options, Output& out) {
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

ExitCode RunImport(const ImportOptions& options, Output& out) {
  const StoreKey given = ReadStoreFile(options.file);
  LiveStore live(out);
  StoreKey target = given;
  if (!options.replaces) {
    target = live.Root();
    MergeStores(target, given);
  }
  const std::vector<StoreChange> changes = CompareStores(live.Root(), target);
  RequireKeepable(changes, target);
  const bool isWritten = !changes.empty() && !options.isDryRun;
  if (isWritten) {
    if (!options.isForced) LiveStore::RefuseDamaged();
    live.Replace(target);
  }
  PrintChanges({"registry-import"}, changes, isWritten, out);
  return ExitCode::kDone;
}

ExitCode RunDiff(const DiffOptions& options, Output& out) {
  const StoreKey before = ReadStoreOrLive(options.before, out);
  const StoreKey after = ReadStoreOrLive(options.after, out);
  const std::vector<StoreChange> changes = CompareStores(before, after);
  out.Print({"registry-diff"}, ChangeTable(changes));
  return changes.empty() ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddRegistryExport(CLI::App& registry) {
  auto options = std::make_shared<ExportOptions>();
  CLI::App& command =
      AddCommand(registry,
                 {"export",
                  "Write the registry as JSON, or in the text form of its file",
                  {{"ravctl registry export --output before.json", "to compare with or to import later"},
                   {"ravctl registry export --format store HKEY_USERS", "one key as the file has it"}}},
                 [options](Output& out) { return RunExport(*options, out); });
  command.add_option("KEY", options->key, "Path of a key; the usual is everything");
  command.add_option("--format", options->format, "json (the usual; without loss) or store")
      ->type_name("FORM")
      ->check(CLI::IsMember({"json", "store"}).description(""));
  command.add_option("--output", options->output, "Into a new file of mode 0600; one that exists is not overwritten")
      ->type_name("FILE");
}

void AddRegistryImport(CLI::App& registry) {
  auto options = std::make_shared<ImportOptions>();
  CLI::App& command =
      AddCommand(registry,
                 {"import",
                  "Take a registry from a file, an export or in the text form of the store; all of it or nothing",
                  {{"ravctl registry import before.json --dry-run", "show what would change"},
                   {"ravctl registry import before.json --replace", "and drop what the file does not have"}},
                  Effect::kChanges},
                 [options](Output& out) { return RunImport(*options, out); });
  command.add_option("FILE", options->file, "What ravctl registry export wrote, or a registry file")->required();
  CLI::Option* merge = command.add_flag("--merge", options->merges, "Keep what the file does not have (the usual)");
  command.add_flag("--replace", options->replaces, "Delete what the file does not have")->excludes(merge);
  AddWriteOptions(command, options->isDryRun, options->isForced);
}

void AddRegistryDiff(CLI::App& registry) {
  auto options = std::make_shared<DiffOptions>();
  CLI::App& command = AddCommand(
      registry,
      {"diff",
       "Compare two registries; exit status 1 when they differ",
       {{"ravctl registry diff /etc/pelrix/registry.old live", "what the last save changed"},
        {"ravctl registry diff before.json live -o change,key,name", "since an export, without the values"}}},
      [options](Output& out) { return RunDiff(*options, out); });
  command.add_option("A", options->before, "A registry file, an export, or live")->required();
  command.add_option("B", options->after, "The same")->required();
}

}  // namespace ravctl
