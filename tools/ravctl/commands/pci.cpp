// pci: the functions of the PCI buses, their bridges and slots.

#include "ravctl/commands/pci.h"

#include <set>

#include "ravctl/answer/json.h"
#include "ravctl/hardware/pci_records.h"
#include "ravctl/hardware/record.h"
#include "ravctl/line/command.h"
#include "ravctl/line/record_filter.h"

namespace ravctl {

namespace {

struct Options {
  RecordFilter filter;
  std::string id;
  bool isTree = false;
};

// "8086:1521" and "1521" apart; a part that is empty matches any.
bool HasId(const Json& record, const std::string& id) {
  const size_t colon = id.find(':');
  const std::string vendor = id.substr(0, colon);
  const std::string device = colon == std::string::npos ? "" : id.substr(colon + 1);
  return (vendor.empty() || MatchesWhole(record["vendor_id"].get<std::string>(), vendor)) &&
         (device.empty() || MatchesWhole(record["device_id"].get<std::string>(), device));
}

std::string CheckId(const std::string& id) {
  const bool isGood = !id.empty() && id.find_first_not_of("0123456789abcdefABCDEF:*?") == std::string::npos;
  return isGood ? "" : "not VENDOR:DEVICE in hexadecimal: " + id;
}

std::string Name(const Json& record) {
  if (record["product"].is_null()) {
    return (record["sub_class"].is_null() ? record["class"] : record["sub_class"]).get<std::string>();
  }
  const std::string vendor = record["vendor"].is_null() ? "" : record["vendor"].get<std::string>() + " ";
  return vendor + record["product"].get<std::string>();
}

// "4", "onboard", and behind a bridge "4 (bridge)".
Json SlotCell(const Json& record) {
  if (record["slot"].is_null()) return nullptr;
  const std::string number = SlotText(record["slot"]);
  return record["slot_from"] == "bridge" ? number + " (bridge)" : number;
}

// What the table shows in words beside what the record holds.
Json Row(const Json& record) {
  Json row = record;
  row["ids"] = record["vendor_id"].get<std::string>() + ":" + record["device_id"].get<std::string>();
  row["name"] = Name(record);
  row["slot_text"] = SlotCell(record);
  row["buses"] = nullptr;
  if (record["is_bridge"] == true) {
    row["buses"] = HexText(record["primary_bus"].get<unsigned int>(), 2) + " -> " +
                   HexText(record["secondary_bus"].get<unsigned int>(), 2);
  }
  return row;
}

Color SlotColor(const Json& row) {
  return row["slot_from"] == "bridge" ? Color::kGray : Color::kNone;
}

std::vector<Column> Columns(bool hasBridges) {
  return {{.key = "address", .heading = "ADDRESS"},
          {.key = "ids", .heading = "IDS"},
          {.key = "class", .heading = "CLASS"},
          {.key = "driver", .heading = "DRIVER"},
          {.key = "slot_text", .heading = "SLOT", .color = SlotColor},
          {.key = "buses", .heading = "BUSES", .isUsual = hasBridges},
          {.key = "name", .heading = "NAME"},
          {.key = "class_code", .heading = "CLASS CODE", .isUsual = false},
          {.key = "sub_class", .heading = "SUB CLASS", .isUsual = false},
          {.key = "vendor_id", .heading = "VENDOR ID", .isUsual = false},
          {.key = "device_id", .heading = "DEVICE ID", .isUsual = false},
          {.key = "subvendor_id", .heading = "SUBVENDOR ID", .isUsual = false},
          {.key = "subdevice_id", .heading = "SUBDEVICE ID", .isUsual = false},
          {.key = "revision", .heading = "REVISION", .isUsual = false},
          {.key = "vendor", .heading = "VENDOR", .isUsual = false},
          {.key = "product", .heading = "PRODUCT", .isUsual = false},
          {.key = "subsystem", .heading = "SUBSYSTEM", .isUsual = false},
          {.key = "names_from", .heading = "NAMES FROM", .isUsual = false},
          {.key = "slot", .heading = "SLOT NUMBER", .isRight = true, .isUsual = false},
          {.key = "slot_from", .heading = "SLOT FROM", .isUsual = false},
          {.key = "parent", .heading = "PARENT", .isUsual = false},
          {.key = "is_bridge", .heading = "BRIDGE", .isUsual = false},
          {.key = "primary_bus", .heading = "PRIMARY BUS", .isRight = true, .isUsual = false},
          {.key = "secondary_bus", .heading = "SECONDARY BUS", .isRight = true, .isUsual = false},
          {.key = "irq", .heading = "IRQ", .isRight = true, .isUsual = false},
          {.key = "interrupt_pin", .heading = "PIN", .isRight = true, .isUsual = false}};
}

Json Select(const Json& records, const Options& options) {
  Json selected = Json::array();
  for (const Json& record : options.filter.Select(records)) {
    if (options.id.empty() || HasId(record, options.id)) selected.push_back(record);
  }
  return selected;
}

// The bridges in front of what was selected, so that the tree shows where it sits.
Json WithBridges(const Json& selected, const Json& records) {
  std::set<std::string> wanted;
  for (const Json& record : selected)
    wanted.insert(record["address"].get<std::string>());
  for (bool isGrowing = true; isGrowing;) {
    isGrowing = false;
    for (const Json& record : records) {
      if (!record["parent"].is_string() || !wanted.contains(record["address"].get<std::string>())) continue;
      isGrowing = wanted.insert(record["parent"].get<std::string>()).second || isGrowing;
    }
  }
  Json all = Json::array();
  for (const Json& record : records) {
    if (wanted.contains(record["address"].get<std::string>())) all.push_back(record);
  }
  return all;
}

ExitCode RunPci(const Options& options, Output& out) {
  const Json records = ReadPciRecords();
  if (!records.empty()) WarnWithoutSlots(out);
  Json selected = Select(records, options);
  const bool isFound = !selected.empty();
  if (options.isTree) selected = WithBridges(selected, records);
  Table table(Columns(options.isTree));
  if (options.isTree) {
    for (const PciTreeRow& row : BuildPciTree(selected))
      table.Add(Row(*row.record), row.parent);
  } else {
    for (const Json& record : selected)
      table.Add(Row(record));
  }
  out.Print({"pci"}, table, selected);
  return isFound ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddPci(Command& root) {
  auto options = std::make_shared<Options>();
  Command& pci = root.Add(
      {"pci",
       "Show the PCI functions with their drivers and slots, as a list or as a tree of bridges",
       {{"ravctl pci", "every function; a slot with (bridge) is that of the bridge in front"},
        {"ravctl pci --tree", "what sits behind which bridge"},
        {"ravctl pci --id 8086: --class 'Network*'", "network controllers of one vendor"},
        {"ravctl pci --address '*:17:00.*' -o address,irq,subvendor_id,subdevice_id", "more about one device"}}},
      [options](Output& out) { return RunPci(*options, out); });
  pci.AddFlag("-t,--tree", &options->isTree, "Each function behind its bridge; bridges of what is wanted come along");
  pci.AddOption("-d,--id", &options->id, "VENDOR:DEVICE", "Only with these IDs: 8086:1521, 8086: or :1521", CheckId);
  options->filter.AddOption(pci, "--address", "address", "Only at this address: 0000:17:00.0, *:17:*");
  options->filter.AddOption(pci, "--class", "class", "Only of this class: 'Network*'");
  options->filter.AddOption(pci, "--driver", "driver", "Only with this kernel driver");
  options->filter.AddOption(pci, "--slot", "slot", "Only in this slot; 0 is the board itself");
  options->filter.AddMatchOption(pci);
}

}  // namespace ravctl
