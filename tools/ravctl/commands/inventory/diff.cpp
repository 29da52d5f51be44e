// inventory diff: what changed between two inventories.

#include "ravctl/answer/json.h"
#include "ravctl/commands/inventory/comparison.h"
#include "ravctl/commands/inventory/group.h"
#include "ravctl/commands/inventory/sides.h"

namespace ravctl {

namespace {

struct Options {
  std::string before;
  std::string after;
  bool withUsage = false;
};

template <typename Names>
std::string Joined(const Names& names) {
  std::string text;
  for (const std::string& name : names)
    text += (text.empty() ? "" : ", ") + name;
  return text;
}

void TellMissing(const std::vector<std::string>& what, const std::string& operand, Output& out) {
  if (!what.empty()) out.Warn("not compared: " + Joined(what), operand, "that side does not tell; a bundle tells most");
}

ExitCode RunDiff(const Options& options, Output& out) {
  Json after;
  if (!IsLive(options.after)) after = ReadSide(options.after, out);
  const Json before = ReadSide(options.before, out);
  if (IsLive(options.after)) after = ReadSide(options.after, out);
  const Differences found = CompareSides(before, after, options.withUsage);
  TellMissing(found.missingBefore, options.before, out);
  TellMissing(found.missingAfter, options.after, out);
  if (!found.oneSided.empty()) {
    out.Warn("not compared, as one side does not know them", Joined(found.oneSided),
             "a device or the running kernel has to be asked for them");
  }
  out.Print(kInventoryDiff, found.rows);
  return found.rows.Size() == 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddInventoryDiff(Command& inventory) {
  auto options = std::make_shared<Options>();
  Command& diff = inventory.Add(
      {"diff",
       "Show what was added, removed, moved or changed: adapters, drives, volumes, slots, memory modules, processors, "
       "BIOS, kernel, interfaces, trace settings, registry; exit status 1 when anything was",
       {{"ravctl inventory diff before.json live", "since that was saved with ravctl inventory --json"},
        {"ravctl inventory diff server1.tar.gz server2.tar.gz", "between two bundles"}}},
      [options](Output& out) { return RunDiff(*options, out); });
  diff.Answers({&kInventoryDiff});
  diff.AddRequired("BEFORE", &options->before, "live or - for this machine, saved JSON, a captured tree or a bundle");
  diff.AddRequired("AFTER", &options->after, "The same");
  diff.AddFlag("--usage", &options->withUsage, "Tell too how full volumes are");
}

}  // namespace ravctl
