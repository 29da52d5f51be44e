#include "ravctl/hardware/pci_records.h"

#include <map>
#include <set>
#include <string>

#include "inventory/adapter_driver.h"
#include "ravctl/answer/json.h"
#include "ravctl/hardware/pci_name_finder.h"
#include "ravctl/hardware/pci_sysfs.h"
#include "ravctl/hardware/record.h"

namespace ravctl {

namespace {

constexpr size_t kMaxDriverName = 127;
constexpr uint8_t kNoInterruptLine = 0xFF;

class RecordMaker {
 public:
  RecordMaker(const PciFunctions& functions, const std::vector<FirmwareSlot>& slots)
      : m_Functions(functions), m_Slots(slots, functions) {}

  Json Make(const PciPlace& place, const CPciCommonConfigHeader& header) {
    const PciNames names = m_Names.Find(header);
    const bool isPlain = header.HeaderLayout() == 0;
    const bool isBridge = header.IsBridge();
    const bool isRouted = header.InterruptPin() != 0 && header.InterruptLine() != kNoInterruptLine;
    const unsigned int classCode = static_cast<unsigned int>(header.BaseClass()) << 16 |
                                   static_cast<unsigned int>(header.SubClass()) << 8 | header.ProgrammingInterface();
    const std::optional<SlotPlaces::Answer> slot = m_Slots.Find(place);
    const PciPlace* const bridge = m_Functions.BridgeOf(place);
    return {{"address", place.Text()},
            {"class_code", HexText(classCode, 6)},
            {"class", CPciCommonConfigHeader::GetPciBaseClassDescription(header)},
            {"sub_class", TextOrNull(CPciCommonConfigHeader::GetPciSubClassDescription(header))},
            {"vendor_id", HexText(header.VendorId(), 4)},
            {"device_id", HexText(header.DeviceId(), 4)},
            {"subvendor_id", isPlain ? Json(HexText(header.SubsystemVendorId(), 4)) : Json()},
            {"subdevice_id", isPlain ? Json(HexText(header.SubsystemId(), 4)) : Json()},
            {"revision", HexText(header.Revision(), 2)},
            {"vendor", names.vendor},
            {"product", names.product},
            {"subsystem", names.subsystem},
            {"names_from", names.source},
            {"driver", Driver(place)},
            {"slot", slot ? Json(slot->slot->number) : Json()},
            {"slot_from", !slot ? Json() : Json(slot->isBehindBridge ? "bridge" : "firmware")},
            {"parent", bridge == nullptr ? Json() : Json(bridge->Text())},
            {"is_bridge", isBridge},
            {"primary_bus", isBridge ? Json(header.PrimaryBus()) : Json()},
            {"secondary_bus", isBridge ? Json(header.SecondaryBus()) : Json()},
            {"irq", isRouted ? Json(header.InterruptLine()) : Json()},
            {"interrupt_pin", header.InterruptPin() != 0 ? Json(header.InterruptPin()) : Json()}};
  }

 private:
  // The kernel's list of drivers knows no segments.
  Json Driver(const PciPlace& place) {
    if (const auto bound = ReadPciDriver(place)) return TextOrNull(*bound);
    std::string driver;
    m_Drivers.Find(place.segment, place.bus, place.device, place.function, kMaxDriverName, driver);
    return TextOrNull(driver);
  }

  const PciFunctions& m_Functions;
  const SlotPlaces m_Slots;
  PciDriverTable m_Drivers;
  PciNameFinder m_Names;
};

class TreeWalk {
 public:
  explicit TreeWalk(const Json& records) {
    for (const Json& record : records)
      m_Children[record["parent"].is_string() ? record["parent"].get<std::string>() : ""].push_back(&record);
    AddChildren("", std::nullopt);
    // What is left stands behind itself, or behind a bridge that is not among the records.
    for (const Json& record : records)
      Add(record, std::nullopt);
  }

  std::vector<PciTreeRow> TakeRows() { return std::move(m_Rows); }

 private:
  void Add(const Json& record, std::optional<size_t> parent) {
    if (!m_Seen.insert(&record).second) return;
    m_Rows.push_back({&record, parent});
    AddChildren(record["address"].get<std::string>(), m_Rows.size() - 1);
  }

  void AddChildren(const std::string& bridge, std::optional<size_t> parent) {
    for (const Json* record : m_Children[bridge])
      Add(*record, parent);
  }

  std::map<std::string, std::vector<const Json*>> m_Children;
  std::set<const Json*> m_Seen;
  std::vector<PciTreeRow> m_Rows;
};

}  // namespace

Json MakePciRecords(const PciFunctions& functions, const std::vector<FirmwareSlot>& slots) {
  RecordMaker maker(functions, slots);
  Json records = Json::array();
  for (const auto& [place, header] : functions)
    records.push_back(maker.Make(place, header));
  return records;
}

Json ReadPciRecords() {
  return MakePciRecords(PciFunctions(), ReadFirmwareSlots());
}

std::vector<PciTreeRow> BuildPciTree(const Json& records) {
  return TreeWalk(records).TakeRows();
}

}  // namespace ravctl
