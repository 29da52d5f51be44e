#include "ravctl/hardware/adapter_records.h"

#include <linux/ethtool.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "inventory/adapter_classes.h"
#include "inventory/adapter_mac.h"
#include "inventory/pci_list_walk.h"
#include "pci/bus_scan.h"
#include "pci/legacy_class_table.h"
#include "ravctl/hardware/firmware_slots.h"
#include "ravctl/hardware/pci_functions.h"
#include "ravctl/hardware/pci_name_finder.h"
#include "ravctl/hardware/pci_sysfs.h"
#include "ravctl/hardware/record.h"

namespace ravctl {

namespace {

constexpr std::string_view kNetworkClass = "net";
constexpr std::string_view kScsiClass = "SCSIAdapter";
constexpr uint32_t kLastNarrowSegment = 0xFFFF;

// What the scan puts where it finds nothing, and how its table calls a device that it does not know.
constexpr std::string_view kUnknownDriver = "<unknown>";
constexpr std::string_view kUnknownInterface = "ethx";
constexpr std::string_view kUnknownDevice = "Unknown Device";

// The texts of the structure may fill their fields to the last byte.
template <size_t kSize>
Json FieldText(const char (&field)[kSize]) {
  return TextOrNull({field, ::strnlen(field, kSize)});
}

// Each value starts as null or empty and stands in this order.
Json EmptyRecord() {
  Json record;
  for (const char* key : {"address",      "class",        "name",      "vendor",     "product",     "subsystem",
                          "names_from",   "driver",       "interface", "interfaces", "mac",         "permanent_mac",
                          "wwn",          "fc_hosts",     "slot",      "id",         "vendor_id",   "device_id",
                          "subvendor_id", "subdevice_id", "revision",  "base_class", "sub_class",   "driver_version",
                          "firmware",     "irq",          "ports",     "memory",     "ranges_from", "is_known"})
    record[key] = nullptr;
  for (const char* key : {"interfaces", "fc_hosts", "ports", "memory"})
    record[key] = Json::array();
  record["is_known"] = true;
  return record;
}

// ---- ISA devices

// "2-edge      timer" => "timer": the kernel puts the pin and the trigger of the line in front.
std::string_view WithoutPin(std::string_view name) {
  const size_t digits = std::min(name.find_first_not_of("0123456789"), name.size());
  const size_t blank = name.find(' ');
  if (digits == 0 || blank == std::string_view::npos || name[digits] != '-') return name;
  const size_t begin = name.find_first_not_of(' ', blank);
  return begin == std::string_view::npos ? name : name.substr(begin);
}

Json IsaRecord(std::string_view written) {
  const std::string name(WithoutPin(written));
  const LegacyClass kind = FindLegacyIsaClass(name.c_str());
  Json record = EmptyRecord();
  record["class"] = TextOrNull(FindIsaClassName(kind.type));
  record["name"] = TextOrNull(name);
  record["is_known"] = kind.name != kUnknownDevice;
  if (record["is_known"] == true) record["product"] = kind.name;
  return record;
}

bool IsRepeated(const Json& records, const Json& isa) {
  const char* const key = isa["is_known"] == true ? "product" : "name";
  return std::ranges::any_of(records, [&](const Json& record) { return record[key] == isa[key]; });
}

// From the table that the scan has built: the kernel's files give ISA devices no IDs, so that the library's records,
// which go by them, come down to the last one.
Json IsaRecords() {
  Json records = Json::array();
  const CCriticalSectionLock lock(DeviceTablesLock());
  for (const BusTableEntry* entry = BusGetNextTableEntry(0); entry != nullptr; entry = BusGetNextTableEntry(1)) {
    if (entry->function.busType != kBusTypeIsa) continue;
    Json record = IsaRecord(entry->function.deviceName.Text());
    if (!IsRepeated(records, record)) records.push_back(std::move(record));
  }
  return records;
}

// ---- PCI functions

class PciAdapters {
 public:
  explicit PciAdapters(const PciFunctions& functions)
      : m_Functions(functions), m_Slots(ReadFirmwareSlots()), m_Places(m_Slots, functions) {}

  // adapter: what the scan says of it.
  Json Record(const PciPlace& place, CSystemAdapter& adapter) {
    const CPciCommonConfigHeader& header = *m_Functions.Find(place);
    const PciNames names = m_Names.Find(header);
    const auto slot = m_Places.Find(place);
    Json record = EmptyRecord();
    record["address"] = place.Text();
    record["class"] = TextOrNull(adapter.ClassName);
    record["name"] = TextOrNull(adapter.DeviceName);
    record["vendor"] = names.vendor;
    record["product"] = names.product;
    record["subsystem"] = names.subsystem;
    record["names_from"] = names.source;
    record["driver"] = Driver(place, adapter);
    record["slot"] = slot ? Json(slot->slot->number) : Json();
    record["id"] = TextOrNull(adapter.DeviceIdText());
    AddIds(header, record);
    AddInterfaces(place, adapter, record);
    AddWwn(place, adapter, record);
    AddRanges(place, adapter, record);
    _SystemAdapterIrqDescriptor irq;
    if (adapter.GetIrqResource(irq, 0)) record["irq"] = irq.interrupt;
    return record;
  }

  // The functions that the scan has no address for.
  void AddWideSegments(Json& records) {
    for (const auto& [place, header] : m_Functions) {
      if (place.segment <= kLastNarrowSegment || header.IsBridge()) continue;
      CSystemAdapter adapter;
      adapter.ClassName = FindAdapterClass(header.BaseClass(), header.SubClass(), header.VendorId()).name;
      char id[80];
      std::snprintf(id, sizeof id, "PCI\\VEN_%04x&DEV_%04x&SUBSYS_%08x&REV_%02x", header.VendorId(), header.DeviceId(),
                    header.SubsystemId(), header.Revision());
      adapter.SetDeviceId(id);
      records.push_back(Record(place, adapter));
    }
  }

 private:
  static Json Driver(const PciPlace& place, const CSystemAdapter& adapter) {
    const std::optional<std::string> driver = ReadPciDriver(place);
    if (driver) return TextOrNull(*driver);
    return adapter.DriverName == kUnknownDriver ? Json() : TextOrNull(adapter.DriverName);
  }

  static void AddIds(const CPciCommonConfigHeader& header, Json& record) {
    record["vendor_id"] = HexText(header.VendorId(), 4);
    record["device_id"] = HexText(header.DeviceId(), 4);
    record["subvendor_id"] = HexText(header.SubsystemVendorId(), 4);
    record["subdevice_id"] = HexText(header.SubsystemId(), 4);
    record["revision"] = HexText(header.Revision(), 2);
    record["base_class"] = CPciCommonConfigHeader::GetPciBaseClassDescription(header);
    record["sub_class"] = TextOrNull(CPciCommonConfigHeader::GetPciSubClassDescription(header));
  }

  // The interface that the library found keeps what it knows of it; another one is asked for the same.
  void AddInterfaces(const PciPlace& place, CSystemAdapter& adapter, Json& record) {
    const std::vector<NetInterface>& interfaces = m_ClassDevices.InterfacesOf(place);
    for (const NetInterface& interface : interfaces)
      record["interfaces"].push_back(interface.name);
    record["mac"] = BytesText(adapter.GetMacAddress().Bytes());
    record["permanent_mac"] = BytesText(adapter.GetPermanentMacAddress().Bytes());
    if (!interfaces.empty() && interfaces.front().name != adapter.InterfaceName) {
      CDataStream permanent;
      adapter.InterfaceName = interfaces.front().name;
      GetHardwareMacInformation(adapter.InterfaceName, permanent);
      record["mac"] = TextOrNull(interfaces.front().address);
      record["permanent_mac"] = BytesText(permanent.Bytes());
    }
    if (adapter.InterfaceName != kUnknownInterface) record["interface"] = TextOrNull(adapter.InterfaceName);
    ethtool_drvinfo info{};
    if (record["interface"].is_null() || !adapter.GetNetworkDrvInfo(&info)) return;
    record["driver_version"] = FieldText(info.version);
    record["firmware"] = FieldText(info.fw_version);
  }

  void AddWwn(const PciPlace& place, CSystemAdapter& adapter, Json& record) const {
    for (const FcHost& host : m_ClassDevices.FcHostsOf(place)) {
      record["fc_hosts"].push_back(
          {{"host", host.name}, {"port_name", TextOrNull(host.portName)}, {"node_name", TextOrNull(host.nodeName)}});
    }
    CWWN wwn;
    if (!record["fc_hosts"].empty()) {
      record["wwn"] = record["fc_hosts"][0]["port_name"];
    } else if (adapter.ClassName == kScsiClass && adapter.GetNodeWWN(wwn)) {
      record["wwn"] = BytesText(wwn.bytes);
    }
  }

  static void AddRanges(const PciPlace& place, const CSystemAdapter& adapter, Json& record) {
    record["ranges_from"] = "kernel";
    if (const auto ranges = ReadPciRanges(place)) {
      record["ports"] = ranges->ports;
      record["memory"] = ranges->memory;
      return;
    }
    record["ranges_from"] = "registers";
    _SystemAdapterIoDescriptor ports;
    for (int index = 0; adapter.GetIoResource(ports, index); ++index)
      record["ports"].push_back("0x" + HexText(ports.start, 4));
    _SystemAdapterMemoryDescriptor memory;
    for (int index = 0; adapter.GetMemoryResource(memory, index); ++index)
      record["memory"].push_back("0x" + HexText(memory.start, 8) + "-0x" + HexText(memory.end, 8));
  }

  const PciFunctions& m_Functions;
  const std::vector<FirmwareSlot> m_Slots;
  const SlotPlaces m_Places;
  const PciClassDevices m_ClassDevices;
  PciNameFinder m_Names;
};

}  // namespace

Json MakeAdapterRecords(CSystemDeviceScan& scan) {
  CPciConfigList list;
  scan.GetPciSlotConfig(list);
  const PciFunctions functions(list);
  PciAdapters pci(functions);
  Json records = IsaRecords();
  CSystemAdapter adapter;
  for (int index = 0; scan.GetAdapter(adapter, index); ++index) {
    if (!adapter.GetPciAddress().IsValid()) continue;
    records.push_back(pci.Record(PciPlace::Of(adapter.GetPciAddress()), adapter));
  }
  pci.AddWideSegments(records);
  return records;
}

}  // namespace ravctl
