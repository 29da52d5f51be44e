// inventory adapters: PCI functions but for bridges, and ISA devices.

#include "ravctl/answer/json.h"
#include "ravctl/commands/inventory/group.h"
#include "ravctl/hardware/record.h"

namespace ravctl {

namespace {

std::vector<Column> AdapterColumns() {
  return {{.key = "address", .heading = "ADDRESS"},
          {.key = "class", .heading = "CLASS"},
          {.key = "driver", .heading = "DRIVER"},
          {.key = "interface", .heading = "INTERFACE"},
          {.key = "mac", .heading = "MAC"},
          {.key = "slot", .heading = "SLOT", .format = SlotText},
          {.key = "title", .heading = "PRODUCT"},
          {.key = "product", .heading = "PRODUCT NAME", .isUsual = false},
          {.key = "name", .heading = "NAME", .isUsual = false},
          {.key = "vendor", .heading = "VENDOR", .isUsual = false},
          {.key = "subsystem", .heading = "SUBSYSTEM", .isUsual = false},
          {.key = "names_from", .heading = "NAMES FROM", .isUsual = false},
          {.key = "permanent_mac", .heading = "PERMANENT MAC", .isUsual = false},
          {.key = "wwn", .heading = "WWN", .isUsual = false},
          {.key = "id", .heading = "ID", .isUsual = false},
          {.key = "vendor_id", .heading = "VENDOR ID", .isUsual = false},
          {.key = "device_id", .heading = "DEVICE ID", .isUsual = false},
          {.key = "subvendor_id", .heading = "SUBVENDOR ID", .isUsual = false},
          {.key = "subdevice_id", .heading = "SUBDEVICE ID", .isUsual = false},
          {.key = "revision", .heading = "REVISION", .isUsual = false},
          {.key = "base_class", .heading = "BASE CLASS", .isUsual = false},
          {.key = "sub_class", .heading = "SUB CLASS", .isUsual = false},
          {.key = "driver_version", .heading = "DRIVER VERSION", .isUsual = false},
          {.key = "firmware", .heading = "FIRMWARE", .isUsual = false},
          {.key = "irq", .heading = "IRQ", .isRight = true, .isUsual = false},
          {.key = "ports", .heading = "PORTS", .isUsual = false},
          {.key = "memory", .heading = "MEMORY", .isUsual = false},
          {.key = "ranges_from", .heading = "RANGES FROM", .isUsual = false},
          {.key = "interfaces", .heading = "INTERFACES", .isUsual = false},
          {.key = "is_known", .heading = "KNOWN", .isUsual = false}};
}

ExitCode Run(const InventoryOptions& options, Output& out) {
  const Json adapters = options.filter.Select(ReadInventory(kAdapterRecords, options.all, out).adapters);
  Table table(AdapterColumns());
  for (const Json& adapter : adapters) {
    Json row = adapter;
    row["title"] = AdapterTitle(adapter);
    table.Add(std::move(row));
  }
  out.Print({"inventory-adapters"}, table, adapters);
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
