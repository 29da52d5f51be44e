// inventory volumes: the mounted file systems.

#include "ravctl/answer/json.h"
#include "ravctl/commands/inventory/group.h"

namespace ravctl {

namespace {

std::vector<Column> VolumeColumns() {
  return {{.key = "mount_point", .heading = "MOUNT POINT", .format = LineText},
          {.key = "device", .heading = "DEVICE", .format = LineText},
          {.key = "type", .heading = "TYPE"},
          {.key = "size_kb", .heading = "SIZE", .isRight = true, .format = KibText},
          {.key = "available_kb", .heading = "AVAILABLE", .isRight = true, .format = KibText},
          {.key = "used_percent", .heading = "USED", .isRight = true, .format = PercentText, .color = FullnessColor},
          {.key = "kind", .heading = "KIND"},
          {.key = "drives", .heading = "DRIVES"},
          {.key = "drive", .heading = "FIRST DRIVE", .isUsual = false},
          {.key = "on", .heading = "ON", .isUsual = false},
          {.key = "layers", .heading = "LAYERS", .isUsual = false},
          {.key = "blocks", .heading = "BLOCKS", .isRight = true, .isUsual = false},
          {.key = "available_blocks", .heading = "AVAILABLE BLOCKS", .isRight = true, .isUsual = false},
          {.key = "block_size", .heading = "BLOCK SIZE", .isRight = true, .isUsual = false},
          {.key = "type_flags", .heading = "TYPE FLAGS", .isRight = true, .isUsual = false},
          {.key = "source", .heading = "SOURCE", .isUsual = false}};
}

ExitCode Run(const InventoryOptions& options, Output& out) {
  Table table(VolumeColumns());
  for (const Json& volume : options.filter.Select(ReadInventory(kVolumeRecords, options.all, out).volumes))
    table.Add(volume);
  out.Print({"inventory-volumes"}, table);
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
  options->filter.AddMatchOption(command);
  AddAllOption(command, *options);
  options->filter.AddOption(command, "--type", "type", "Only this type of file system: ext4, xfs...");
  options->filter.AddOption(command, "--kind", "kind", "Only this kind: local, fat, network, optical, memory, other");
  options->filter.AddOption(command, "--device", "device", "Only from this device");
  options->filter.AddOption(command, "--drive", "drive", "Only on this drive: /dev/sda");
}

}  // namespace ravctl
