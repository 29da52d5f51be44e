// inventory drives: what stores data.

#include "ravctl/answer/json.h"
#include "ravctl/commands/inventory/group.h"

namespace ravctl {

namespace {

ExitCode Run(const InventoryOptions& options, Output& out) {
  Table table(kInventoryDrives);
  const Json drives = options.filter.Select(ReadInventory(kDriveRecords, true, out).drives);
  for (const Json& drive : drives) {
    Json row = drive;
    row["partition_names"] = Json::array();
    for (const Json& partition : drive["partitions"])
      row["partition_names"].push_back(partition["device"]);
    table.Add(std::move(row));
  }
  out.Print(kInventoryDrives, table, drives);
  return table.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddInventoryDrives(Command& inventory) {
  auto options = std::make_shared<InventoryOptions>();
  Command& command =
      inventory.Add({"drives",
                     "List the drives: disks, CD drives and tapes of every bus",
                     {{"ravctl inventory drives --type disk -o device,serial", "serial numbers of the disks"},
                      {"ravctl inventory drives --adapter 0000:18:00.0", "what one controller has"}},
                     Effect::kReads,
                     "drive inquiries"},
                    [options](Output& out) { return Run(*options, out); });
  command.Answers({&kInventoryDrives});
  options->filter.AddMatchOption(command);
  options->filter.AddOption(command, "--type", "type", "Only this type: disk, cdrom, optical, tape, other");
  options->filter.AddOption(command, "--bus", "bus", "Only on this bus: SCSI, SAS...");
  options->filter.AddOption(command, "--vendor", "vendor", "Only of this vendor");
  options->filter.AddOption(command, "--serial", "serial", "Only with this serial number");
  options->filter.AddOption(command, "--adapter", "adapter", "Only at the adapter with this PCI address");
}

}  // namespace ravctl
