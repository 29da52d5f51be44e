// inventory volumes: the mounted file systems.

#include "ravctl/answer/json.h"
#include "ravctl/commands/inventory/group.h"

namespace ravctl {

namespace {

ExitCode Run(const InventoryOptions& options, Output& out) {
  Table table(kInventoryVolumes);
  for (const Json& volume : options.filter.Select(ReadInventory(kVolumeRecords, options.all, out).volumes))
    table.Add(volume);
  out.Print(kInventoryVolumes, table);
  return table.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddInventoryVolumes(Command& inventory) {
  auto options = std::make_shared<InventoryOptions>();
  Command& command = inventory.Add(
      {"volumes",
       "List the mounted file systems",
       {{"ravctl inventory volumes --kind local", "those on the disks of this machine"},
        {"ravctl inventory volumes --json | jq '.data[] | select(.used_percent > 90)'", "those that run full"}},
       Effect::kReads,
       "sizes of volumes"},
      [options](Output& out) { return Run(*options, out); });
  command.Answers({&kInventoryVolumes});
  options->filter.AddMatchOption(command);
  AddAllOption(command, *options);
  options->filter.AddOption(command, "--type", "type", "Only this type of file system: ext4, xfs...");
  options->filter.AddOption(command, "--kind", "kind", "Only this kind: local, fat, network, optical, memory, other");
  options->filter.AddOption(command, "--device", "device", "Only from this device");
  options->filter.AddOption(command, "--drive", "drive", "Only on this drive: /dev/sda");
}

}  // namespace ravctl
