// inventory adapters: PCI functions but for bridges, and ISA devices.

#include "ravctl/answer/json.h"
#include "ravctl/commands/inventory/group.h"
#include "ravctl/hardware/record.h"

namespace ravctl {

namespace {

ExitCode Run(const InventoryOptions& options, Output& out) {
  const Json adapters = options.filter.Select(ReadInventory(kAdapterRecords, options.all, out).adapters);
  Table table(kInventoryAdapters);
  for (const Json& adapter : adapters) {
    Json row = adapter;
    row["title"] = AdapterTitle(adapter);
    table.Add(std::move(row));
  }
  out.Print(kInventoryAdapters, table, adapters);
  return table.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddInventoryAdapters(Command& inventory) {
  auto options = std::make_shared<InventoryOptions>();
  Command& command = inventory.Add(
      {"adapters",
       "List the adapters: PCI functions but for bridges, and ISA devices",
       {{"ravctl inventory adapters --class net -o address,interface,mac,firmware", "the network adapters"},
        {"ravctl inventory adapters --driver 'mpt*' --driver megaraid_sas", "two families of controllers"}},
       Effect::kReads,
       "what network drivers say of themselves"},
      [options](Output& out) { return Run(*options, out); });
  command.Answers({&kInventoryAdapters});
  options->filter.AddMatchOption(command);
  AddAllOption(command, *options);
  options->filter.AddOption(command, "--class", "class", "Only this class: net, SCSIAdapter, Display...");
  options->filter.AddOption(command, "--driver", "driver", "Only with this kernel driver");
  options->filter.AddOption(command, "--interface", "interface", "Only with this network interface");
  options->filter.AddOption(command, "--address", "address", "Only at this PCI address: 0000:02:00.0, *:02:*");
  options->filter.AddOption(command, "--slot", "slot", "Only in this slot; 0 is the board itself");
  options->filter.AddOption(command, "--vendor", "vendor_id", "Only of this vendor: 8086");
}

}  // namespace ravctl
