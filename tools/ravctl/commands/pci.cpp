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

Color SlotColor(const Json& slot) {
  return slot.get_ref<const std::string&>().ends_with("(bridge)") ? Color::kGray : Color::kNone;
}

constexpr Type kId = Like("^[0-9a-f]{4}$");

constexpr auto kPciFields = std::to_array<Field>({
    {"address", kPciAddress, "PCI address of the function"},
    {"ids", kText, "numbers of maker and device", {.where = Where::kTable}},
    {"class", kText, "base class"},
    {"driver", kTextOrNull, "kernel driver"},
    {"slot_text",
     kTextOrNull,
     "slot, and whether it is that of the bridge in front",
     {.heading = "SLOT", .color = SlotColor, .where = Where::kTable}},
    {"buses",
     kTextOrNull,
     "of a bridge, the buses on both sides; usual with --tree",
     {.isUsual = false, .where = Where::kTable}},
    {"name", kText, "maker and product, else the class", {.where = Where::kTable}},
    {"class_code", Like("^[0-9a-f]{6}$"), "class, sub-class and interface", kOnRequest},
    {"sub_class", kTextOrNull, "sub-class", kOnRequest},
    {"vendor_id", kId, "number of the maker", kOnRequest},
    {"device_id", kId, "the maker's number of the device", kOnRequest},
    {"subvendor_id", OrNull(kId), "number of the maker of the card", kOnRequest},
    {"subdevice_id", OrNull(kId), "that maker's number of the card", kOnRequest},
    {"revision", Like("^[0-9a-f]{2}$"), "revision of the device", kOnRequest},
    {"vendor", kTextOrNull, "name of the maker", kOnRequest},
    {"product", kTextOrNull, "name of the product", kOnRequest},
    {"subsystem", kTextOrNull, "name of the card", kOnRequest},
    {"names_from", OrNull(Choice("Adapter.ini|pci.ids")), "where the names are from", kOnRequest},
    {"slot", kCountOrNull, "number of the slot; 0 is the board itself", {"SLOT NUMBER", false}},
    {"slot_from", OrNull(Choice("firmware|bridge")), "what tells of the slot", kOnRequest},
    {"parent", OrNull(kPciAddress), "the bridge in front of it", kOnRequest},
    {"is_bridge", kBoolean, "whether it is a bridge", {"BRIDGE", false}},
    {"primary_bus", kCountOrNull, "of a bridge, the bus that it is on", kOnRequest},
    {"secondary_bus", kCountOrNull, "of a bridge, the bus behind it", kOnRequest},
    {"irq", kCountOrNull, "interrupt", kOnRequest},
    {"interrupt_pin", kCountOrNull, "pin of the interrupt", {"PIN", false}},
});
constexpr Schema kPci = {"pci", 1, ListOf(kPciFields)};

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
  Table table(kPci);
  table.SetUsual("buses", options.isTree);
  if (options.isTree) {
    for (const PciTreeRow& row : BuildPciTree(selected))
      table.Add(Row(*row.record), row.parent);
  } else {
    for (const Json& record : selected)
      table.Add(Row(record));
  }
  out.Print(kPci, table, selected);
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
  pci.Answers({&kPci});
  pci.AddFlag("-t,--tree", &options->isTree, "Each function behind its bridge; bridges of what is wanted come along");
  pci.AddOption("-d,--id", &options->id, "VENDOR:DEVICE", "Only with these IDs: 8086:1521, 8086: or :1521", CheckId);
  options->filter.AddOption(pci, "--address", "address", "Only at this address: 0000:17:00.0, *:17:*");
  options->filter.AddOption(pci, "--class", "class", "Only of this class: 'Network*'");
  options->filter.AddOption(pci, "--driver", "driver", "Only with this kernel driver");
  options->filter.AddOption(pci, "--slot", "slot", "Only in this slot; 0 is the board itself");
  options->filter.AddMatchOption(pci);
}

}  // namespace ravctl
