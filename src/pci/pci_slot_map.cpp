#include "pci/pci_slot_map.h"

#include <algorithm>
#include <cstdio>
#include <span>

#include "firmware/device_bios.h"
#include "firmware/irq_routing_table.h"
#include "firmware/smbios_lookup.h"
#include "trace/debug.h"

namespace {

constexpr uint8_t kUnknownType = 2;
constexpr uint8_t kUsageUnknown = 2;
constexpr uint8_t kUsageInUse = 4;
constexpr uint8_t kUsageUnavailable = 5;
constexpr uint8_t kNoBus = 0xFF;

// Offsets in the system slot structure (DMTF DSP0134, 7.10).
constexpr size_t kSlotType = 5;
constexpr size_t kSlotUsage = 7;
constexpr size_t kSlotId = 9;
constexpr size_t kSlotBus = 15;
constexpr size_t kSlotDevice = 16;
constexpr size_t kSlotSize = 17;

// Offsets in the onboard devices extended information structure (DMTF DSP0134, 7.42).
constexpr size_t kOnboardBus = 9;
constexpr size_t kOnboardDevice = 10;
constexpr size_t kOnboardSize = 11;

constexpr uint8_t DeviceOf(uint8_t deviceFunction) {
  return static_cast<uint8_t>(deviceFunction >> 3);
}

void AddSystemSlot(std::span<const unsigned char> structure, std::vector<PciSlotData>& slots) {
  if (structure.size() < kSlotSize) {
    TRACE(5, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): Ignore slot structure of %u bytes without bus number...\n",
          static_cast<unsigned int>(structure.size()));
    return;
  }
  const PciSlotData entry{structure[kSlotBus], DeviceOf(structure[kSlotDevice]), structure[kSlotId],
                          structure[kSlotType], structure[kSlotUsage]};
  if (entry.bus == kNoBus) {
    TRACE(5, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): Ignore unavailable slot with bus number 0xFF...\n");
    return;
  }
  TRACE(5, "\nCPciSlotMap::GetPciSlotNumber() : CurrentUsage status - %x for bus - %x.", entry.currentUsage, entry.bus);
  if (entry.currentUsage == kUsageUnavailable) {
    TRACE(
        3,
        "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): Ignore riser-unavailable slot with Current Usage status - Unavaiable ...\n");
    return;
  }
  TRACE(2, "\nCPciSlotMap::GetSlotMappingFromSMBIOS() : Add system slot device - %s.", entry.ToString().c_str());
  slots.push_back(entry);
}

void AddOnboardDevice(std::span<const unsigned char> structure, std::vector<PciSlotData>& slots) {
  if (structure.size() < kOnboardSize) {
    TRACE(
        5,
        "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): Ignore onboard device structure of %u bytes without bus number...\n",
        static_cast<unsigned int>(structure.size()));
    return;
  }
  const PciSlotData entry{structure[kOnboardBus], DeviceOf(structure[kOnboardDevice]), 0, kUnknownType, kUsageUnknown};
  TRACE(2, "\nCPciSlotMap::GetSlotMappingFromSMBIOS() : Add onboard device - %s.", entry.ToString().c_str());
  slots.push_back(entry);
}

}  // namespace

bool PciSlotData::IsSerialBus() const {
  const int number = slot;
  const unsigned int type = slotType;
  if (type == 0x1F || type == 0x20 || (type >= 0xA5 && type <= 0xB6)) {
    TRACE(5, "\nPciSlotData::IsSerialBus(): Slot %d is a PCI Express bus (SMBios type = %x) --> SERIAL.", number, type);
    return true;
  }
  if (type >= 0x21 && type <= 0x23) {
    TRACE(5, "\nPciSlotData::IsSerialBus(): Slot %d is a PCI Express Mini bus (SMBios type = %x) --> SERIAL.", number,
          type);
    return true;
  }
  if (type >= 0x18 && type <= 0x1E) {
    TRACE(5, "\nPciSlotData::IsSerialBus(): Slot %d is a MXM bus (SMBios type = %x) --> SERIAL.", number, type);
    return true;
  }
  if (type >= 0x14 && type <= 0x17) {
    TRACE(5, "\nPciSlotData::IsSerialBus(): Slot %d is a M.2 bus (SMBios type = %x) --> SERIAL.", number, type);
    return true;
  }
  TRACE(5, "\nPciSlotData::IsSerialBus(): Slot %d is NOT a serial bus (SMBios type = %x) --> PARALLEL", number, type);
  return false;
}

bool PciSlotData::Matches(unsigned int onBus, unsigned int asDevice) const {
  return IsSerialBus() ? bus == onBus : bus == onBus && device == asDevice;
}

std::string PciSlotData::ToString() const {
  const char* kind = slotType <= kUnknownType ? "Unknown bus type" : IsSerialBus() ? "Serial bus" : "Parallel bus";
  char text[64];
  std::snprintf(text, sizeof(text), "PciSlotData %x:%x.** --> Slot %d (%s)", bus, device, slot, kind);
  return text;
}

std::vector<PciSlotData> CPciSlotMap::GetSlotMappingFromIrqRoutingTable() {
  TRACE(4, "\nCPciSlotMap::GetSlotMappingFromIrqRoutingTable(): Attempt to get Slot Mapping from IRQ Routing Table.\n");
  CDeviceBios device;
  device.Connect();
  const std::vector<unsigned char> table = device.GetRoutingTable();
  device.Disconnect();
  if (table.empty()) {
    TRACE(1, "\nCPciSlotMap::GetSlotMappingFromIrqRoutingTable(): ERROR ## Empty IRQ Routing Table.\n");
    return {};
  }
  std::vector<PciSlotData> slots;
  for (size_t at = 0; at + sizeof(IRQ_ROUTING_TABLE_ENTRY) <= table.size(); at += sizeof(IRQ_ROUTING_TABLE_ENTRY)) {
    const auto* entry = reinterpret_cast<const IRQ_ROUTING_TABLE_ENTRY*>(table.data() + at);
    slots.push_back({entry->bus, DeviceOf(entry->deviceFunction), entry->slot, kUnknownType, kUsageUnknown});
    TRACE(3, "\nCPciSlotMap::GetSlotMappingFromIrqRoutingTable(): Add device - %s.", slots.back().ToString().c_str());
  }
  if (slots.empty()) {
    TRACE(1, "\nCPciSlotMap::GetSlotMappingFromIrqRoutingTable(): ERROR ## No slot data in IRQ Routing Table!\n");
    return {};
  }
  TRACE(4, "\nCPciSlotMap::GetSlotMappingFromIrqRoutingTable(): Success! Gathered %u slots from IRQ Routing Table\n",
        static_cast<unsigned int>(slots.size()));
  return slots;
}

std::vector<PciSlotData> CPciSlotMap::GetSlotMappingFromSMBIOS() {
  TRACE(4, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): Attempt to get Slot Mapping from SMBIOS data.\n");
  CSMBios smbios;
  if (!smbios.connect()) {
    TRACE(1, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): ERROR ## cannot connect to SMBios!\n");
    return {};
  }
  std::vector<PciSlotData> slots;
  if (const SmbiosStructureList* systemSlots = smbios.getStructuresByType(kSmbiosSystemSlot)) {
    for (const _DMI_20_HEADER* structure : *systemSlots)
      AddSystemSlot(structure->FormattedArea(), slots);
  } else {
    TRACE(4, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): No System Slots (Type 9) entries.\n");
  }
  if (const SmbiosStructureList* onboard = smbios.getStructuresByType(kSmbiosOnboardDevice)) {
    for (const _DMI_20_HEADER* structure : *onboard)
      AddOnboardDevice(structure->FormattedArea(), slots);
  } else {
    TRACE(4, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): No Onboard Devices Extended Information (Type 41) entries.\n");
  }
  smbios.disconnect();
  if (slots.empty()) {
    TRACE(1, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): ERROR ## No slot data in SMBios!\n");
    return {};
  }
  TRACE(4, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): Success! Gathered %u slots from SMBios\n",
        static_cast<unsigned int>(slots.size()));
  return slots;
}

void CPciSlotMap::UpdateSlotTypeFromSMBios(std::vector<PciSlotData>& irq, const std::vector<PciSlotData>& smbios) {
  TRACE(4, "\nCPciSlotMap::UpdateSlotTypeFromSMBios(): Updating IRQ slot type using data from SMBios.\n");
  for (PciSlotData& entry : irq) {
    const auto source =
        std::find_if(smbios.begin(), smbios.end(), [&entry](const PciSlotData& s) { return s == entry; });
    if (source != smbios.end()) {
      entry.slotType = source->slotType;
      TRACE(4, "\nCPciSlotMap::UpdateSlotTypeFromSMBios(): Updated slot type:");
    } else {
      TRACE(4, "\nCPciSlotMap::UpdateSlotTypeFromSMBios(): Could not match with any SMBios entry:");
    }
    TRACE(2, "\n\t%s", entry.ToString().c_str());
  }
  TRACE(5, "\nCPciSlotMap::UpdateSlotTypeFromSMBios(): Done.\n");
}

void CPciSlotMap::GetSlotMapping() {
  std::vector<PciSlotData> irq = GetSlotMappingFromIrqRoutingTable();
  std::vector<PciSlotData> smbios = GetSlotMappingFromSMBIOS();
  m_Loaded = true;
  if (!irq.empty()) {
    TRACE(4, "\nCPciSlotMap::GetSlotMapping(): Using slot data from IRQ.\n");
    if (!smbios.empty()) UpdateSlotTypeFromSMBios(irq, smbios);
    m_SlotTable = std::move(irq);
  } else if (!smbios.empty()) {
    TRACE(4, "\nCPciSlotMap::GetSlotMapping(): Using slot data from SMBios.\n");
    m_SlotTable = std::move(smbios);
  } else {
    TRACE(1, "\nCPciSlotMap::GetSlotMapping(): ERROR # No slot data found on this machine!\n");
  }
}

const PciSlotData* CPciSlotMap::FindEntry(unsigned int bus, unsigned int device, bool inUseOnly) const {
  for (const PciSlotData& entry : m_SlotTable) {
    TRACE(5, "\nCPciSlotMap::GetPciSlotNumber() : Check %s", entry.ToString().c_str());
    if (entry.Matches(bus, device) && (!inUseOnly || entry.currentUsage == kUsageInUse)) return &entry;
  }
  return nullptr;
}

bool CPciSlotMap::GetPciSlotNumber(unsigned char& slot, unsigned int bus, unsigned int device,
                                   unsigned int /*function*/, unsigned int /*segment*/) {
  slot = 0;
  if (!m_Loaded) GetSlotMapping();
  if (m_SlotTable.empty()) {
    TRACE(1, "\nCPciSlotMap::GetPciSlotNumber() : ERROR ## Could not retrieve slot mapping.");
    return false;
  }
  TRACE(5, "\nCPciSlotMap::GetPciSlotNumber() : Searching PCI slot table for bus '%x' device '%x'", bus, device);
  const PciSlotData* winner = FindEntry(bus, device, true);
  if (winner == nullptr) winner = FindEntry(bus, device, false);
  if (winner == nullptr) return false;
  slot = winner->slot;
  TRACE(3, "\nCPciSlotMap::GetPciSlotNumber() : Found PCI Slot for this device - %d", slot);
  return true;
}
