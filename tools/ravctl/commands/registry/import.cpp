// registry import: a whole registry in, all of it or nothing.

#include "ravctl/commands/registry/group.h"
#include "ravctl/registry/live_store.h"
#include "ravctl/registry/store_files.h"

namespace ravctl {

namespace {

struct Options {
  std::string file;
  bool merges = false;
  bool replaces = false;
  WriteOptions write;
};

ExitCode Run(const Options& options, Output& out) {
  const StoreKey given = ReadStoreFile(options.file);
  const auto change = [&](const StoreKey& root) {
    if (options.replaces) return given;
    StoreKey target = root;
    MergeStores(target, given);
    return target;
  };
  return RunEdit(kRegistryImport, change, options.write, out);
}

}  // namespace

void AddRegistryImport(Command& registry) {
  auto options = std::make_shared<Options>();
  Command& command =
      registry.Add({"import",
                    "Take a registry from a file, an export or in the text form of the store; all of it or nothing",
                    {{"ravctl registry import before.json --dry-run", "show what would change"},
                     {"ravctl registry import before.json --replace", "and drop what the file does not have"}},
                    Effect::kChanges},
                   [options](Output& out) { return Run(*options, out); });
  command.Answers({&kRegistryImport});
  command.AddRequired("FILE", &options->file, "What ravctl registry export wrote, or a registry file");
  command.AddFlag("--merge", &options->merges, "Keep what the file does not have (the usual)");
  command.AddFlag("--replace", &options->replaces, "Delete what the file does not have").excludes = "--merge";
  AddWriteOptions(command, options->write);
}

}  // namespace ravctl
