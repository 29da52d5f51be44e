#include "ravctl/hardware/pci_records.h"

#include <map>
#include <set>
#include <string>

#include "inventory/adapter_driver.h"
#include "pci/pci_config_list.h"
#include "pci/pci_slot_map.h"
#include "ravctl/answer/json.h"
#include "ravctl/hardware/record.h"

namespace ravctl {

namespace {

constexpr size_t kMaxDriverName = 127;
constexpr uint8_t kNoInterruptLine = 0xFF;

// The bridges by segment and the bus behind them.
using Bridges = std::map<std::pair<uint16_t, uint8_t>, CPciAddress>;

Bridges FindBridges(const CPciConfigList& list) {
  Bridges bridges;
  for (const auto& [address, function] : list) {
    const uint8_t bus = function.header.SecondaryBus();
    if (function.header.IsBridge() && bus != 0) bridges.emplace(std::pair{address.segment, bus}, address);
  }
  return bridges;
}

class RecordMaker {
 public:
  explicit RecordMaker(const CPciConfigList& list) : m_Bridges(FindBridges(list)) {}

  Json Make(const CPciSlotData& function) {
    const CPciCommonConfigHeader& header = function.header;
    const PciNames names = FindPciNames(header);
    const bool isPlain = header.HeaderLayout() == 0;
    const bool isBridge = header.IsBridge();
    const bool isRouted = header.InterruptPin() != 0 && header.InterruptLine() != kNoInterruptLine;
    const unsigned int classCode = static_cast<unsigned int>(header.BaseClass()) << 16 |
                                   static_cast<unsigned int>(header.SubClass()) << 8 | header.ProgrammingInterface();
    return {{"address", AddressText(function.address)},
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
            {"driver", Driver(function.address)},
            {"slot", function.slot >= 0 ? Json(function.slot) : Json()},
            {"slot_from", SlotSource(function)},
            {"parent", Parent(function.address)},
            {"is_bridge", isBridge},
            {"primary_bus", isBridge ? Json(header.PrimaryBus()) : Json()},
            {"secondary_bus", isBridge ? Json(header.SecondaryBus()) : Json()},
            {"irq", isRouted ? Json(header.InterruptLine()) : Json()},
            {"interrupt_pin", header.InterruptPin() != 0 ? Json(header.InterruptPin()) : Json()}};
  }

 private:
  Json Driver(const CPciAddress& address) {
    std::string driver;
    m_Drivers.Find(address.segment, address.bus, address.device, address.function, kMaxDriverName, driver);
    return TextOrNull(driver);
  }

  // A number that the slot table does not give to the device itself is that of the bridge in front.
  Json SlotSource(const CPciSlotData& function) {
    if (function.slot < 0) return nullptr;
    unsigned char slot = 0;
    const CPciAddress& at = function.address;
    return m_Slots.GetPciSlotNumber(slot, at.bus, at.device, at.function, at.segment) ? "firmware" : "bridge";
  }

  Json Parent(const CPciAddress& address) const {
    const auto bridge = m_Bridges.find({address.segment, address.bus});
    return bridge == m_Bridges.end() ? Json() : AddressText(bridge->second);
  }

  Bridges m_Bridges;
  PciDriverTable m_Drivers;
  CPciSlotMap m_Slots;
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

Json ReadPciRecords() {
  CPciConfigList list;
  CPciConfigList::ScanPciSlots(list, true);
  RecordMaker maker(list);
  Json records = Json::array();
  for (const auto& [address, function] : list)
    records.push_back(maker.Make(function));
  return records;
}

std::vector<PciTreeRow> BuildPciTree(const Json& records) {
  return TreeWalk(records).TakeRows();
}

}  // namespace ravctl
