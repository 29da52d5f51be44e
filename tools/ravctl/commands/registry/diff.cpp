// registry diff: two registries side by side.

#include "ravctl/commands/registry/group.h"
#include "ravctl/registry/store_files.h"

namespace ravctl {

namespace {

struct Options {
  std::string before;
  std::string after;
};

ExitCode Run(const Options& options, Output& out) {
  const StoreKey before = ReadStoreOrLive(options.before, out);
  const StoreKey after = ReadStoreOrLive(options.after, out);
  const std::vector<StoreChange> changes = CompareStores(before, after);
  out.Print(kRegistryDiff, ChangeTable(changes));
  return changes.empty() ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddRegistryDiff(Command& registry) {
  auto options = std::make_shared<Options>();
  Command& command = registry.Add(
      {"diff",
       "Compare two registries; exit status 1 when they differ",
       {{"ravctl registry diff /etc/pelrix/registry.old live", "what the last save changed"},
        {"ravctl registry diff server1.tar.gz server2.tar.gz", "between two bundles"},
        {"ravctl registry diff before.json live -o change,key,name", "since an export, without the values"}}},
      [options](Output& out) { return Run(*options, out); });
  command.Answers({&kRegistryDiff});
  command.AddRequired("A", &options->before, "A registry file, an export, a captured tree, a bundle, or live");
  command.AddRequired("B", &options->after, "The same");
}

}  // namespace ravctl
