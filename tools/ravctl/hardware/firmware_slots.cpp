#include "ravctl/hardware/firmware_slots.h"

#include <algorithm>
#include <cstdio>

#include "firmware/little_endian.h"
#include "firmware/smbios_walk.h"
#include "pci/pci_slot_map.h"
#include "ravctl/hardware/smbios_image.h"
#include "ravctl/hardware/smbios_names.h"

namespace ravctl {

namespace {

constexpr const char* kRoutingTable = "$PIR";
constexpr uint8_t kNoBus = 0xFF;
constexpr uint8_t kBridgeClass = 0x06;
constexpr uint8_t kHostBridge = 0x00;

// Places and codes in the structures (DMTF DSP0134, 7.10 and 7.42).
constexpr size_t kSlotSegment = 13;
constexpr size_t kSlotBus = 15;
constexpr size_t kSlotSize = 17;
constexpr size_t kOnboardSegment = 7;
constexpr size_t kOnboardBus = 9;
constexpr size_t kOnboardSize = 11;
constexpr uint8_t kAvailable = 3;
constexpr uint8_t kInUse = 4;
constexpr uint8_t kUnavailable = 5;

// M.2, MXM, U.2 and PCI Express in every form; ISA to PCI-X, AGP and PC-98 are none.
bool IsSerialType(uint8_t type) {
  return (type >= 0x14 && type < 0xA0) || type >= 0xA5;
}

std::string SourceName(const SmbiosStructure& structure) {
  char text[48];
  std::snprintf(text, sizeof text, "SMBIOS type %u (0x%04X)", structure.type, structure.handle);
  return text;
}

uint8_t ByteAt(const SmbiosStructure& structure, size_t offset) {
  return ReadLittleEndian<uint8_t>(structure.area, offset);
}

std::optional<PciPlace> PlaceAt(const SmbiosStructure& structure, size_t segment, size_t bus, size_t size) {
  if (structure.area.size() < size || ByteAt(structure, bus) == kNoBus) return std::nullopt;
  const uint8_t deviceFunction = ByteAt(structure, bus + 1);
  return PciPlace{ReadLittleEndian<uint16_t>(structure.area, segment), ByteAt(structure, bus),
                  static_cast<uint8_t>(deviceFunction >> 3), static_cast<uint8_t>(deviceFunction & 7)};
}

FirmwareSlot SlotOf(const SmbiosStructure& structure) {
  const uint8_t type = ByteAt(structure, 5);
  const uint8_t usage = ByteAt(structure, 7);
  FirmwareSlot slot;
  slot.number = ReadLittleEndian<uint16_t>(structure.area, 9);
  slot.designation = structure.String(ByteAt(structure, 4));
  slot.type = SlotTypeName(type);
  slot.width = SlotWidthName(ByteAt(structure, 6));
  slot.length = SlotLengthName(ByteAt(structure, 8));
  slot.usage = SlotUsageName(usage);
  slot.place = PlaceAt(structure, kSlotSegment, kSlotBus, kSlotSize);
  slot.hasFunction = true;
  slot.isSerial = IsSerialType(type);
  slot.isInUse = usage == kInUse;
  slot.isEmpty = usage == kAvailable || usage == kUnavailable;
  slot.sources = {SourceName(structure)};
  return slot;
}

FirmwareSlot OnboardOf(const SmbiosStructure& structure) {
  FirmwareSlot slot;
  slot.designation = structure.String(ByteAt(structure, 4));
  slot.place = PlaceAt(structure, kOnboardSegment, kOnboardBus, kOnboardSize);
  slot.hasFunction = true;
  slot.isOnboard = true;
  slot.sources = {SourceName(structure)};
  return slot;
}

// Whether the routing table speaks of that slot: of the same place, or of one that SMBIOS has no place for.
bool Agrees(const FirmwareSlot& slot, const PciSlotData& entry) {
  if (slot.number != entry.slot) return false;
  if (!slot.place) return entry.slot != 0;
  return slot.place->bus == entry.bus && (slot.isSerial || slot.place->device == entry.device);
}

// A source that says the same as one before confirms it.
void AddRouted(const PciSlotData& entry, std::vector<FirmwareSlot>& slots) {
  const PciPlace place = {0, entry.bus, entry.device, 0};
  auto found = std::ranges::find_if(slots, [&entry](const FirmwareSlot& slot) { return Agrees(slot, entry); });
  if (found == slots.end()) found = slots.insert(found, {.number = entry.slot, .isOnboard = entry.slot == 0});
  if (!found->place) found->place = place, found->hasFunction = false;
  if (std::ranges::find(found->sources, kRoutingTable) == found->sources.end())
    found->sources.emplace_back(kRoutingTable);
}

}  // namespace

std::vector<FirmwareSlot> ReadFirmwareSlots() {
  std::vector<FirmwareSlot> slots;
  SmbiosImage image;
  FindSmbiosImage(image);
  for (const SmbiosStructure& structure : image.structures) {
    if (structure.type == kSmbiosSystemSlot) slots.push_back(SlotOf(structure));
    if (structure.type == kSmbiosOnboardDevice) slots.push_back(OnboardOf(structure));
  }
  for (const PciSlotData& entry : CPciSlotMap::GetSlotMappingFromIrqRoutingTable())
    AddRouted(entry, slots);
  std::ranges::stable_sort(slots, {}, &FirmwareSlot::number);
  return slots;
}

SlotPlaces::SlotPlaces(const std::vector<FirmwareSlot>& slots, const PciFunctions& functions) : m_Functions(functions) {
  for (const FirmwareSlot& slot : slots) {
    if (slot.place && NamesCard(slot)) m_Entries.push_back({&slot, functions.IsBridge(*slot.place)});
  }
  std::ranges::stable_sort(m_Entries, std::greater(), [](const Entry& entry) { return entry.slot->isInUse; });
}

bool SlotPlaces::NamesCard(const FirmwareSlot& slot) const {
  const CPciCommonConfigHeader* const header = m_Functions.Find(*slot.place);
  const bool isHost = header != nullptr && header->BaseClass() == kBridgeClass && header->SubClass() == kHostBridge;
  const bool isOnRootBus = m_Functions.BridgeOf(*slot.place) == nullptr;
  return !isHost && !(slot.isEmpty && isOnRootBus && !m_Functions.IsBridge(*slot.place));
}

template <typename Condition>
const FirmwareSlot* SlotPlaces::First(Condition fits) const {
  const auto found = std::ranges::find_if(m_Entries, fits);
  return found == m_Entries.end() ? nullptr : found->slot;
}

// The entry that names the function itself, else the one that names its card or its bus.
const FirmwareSlot* SlotPlaces::FindNamed(const PciPlace& function) const {
  const FirmwareSlot* const exact = First([&](const Entry& entry) { return *entry.slot->place == function; });
  if (exact != nullptr) return exact;
  const bool isOnRootBus = m_Functions.BridgeOf(function) == nullptr;
  const bool isRootPort = isOnRootBus && m_Functions.IsBridge(function);
  return First([&](const Entry& entry) {
    const FirmwareSlot& slot = *entry.slot;
    const bool isSameDevice = slot.place->IsSameDevice(function);
    if (!slot.hasFunction && isSameDevice) return true;
    if (entry.isBridge || isRootPort) return false;
    const bool hasBus = slot.isSerial && !isOnRootBus;
    return isSameDevice || (hasBus && slot.place->segment == function.segment && slot.place->bus == function.bus);
  });
}

std::optional<SlotPlaces::Answer> SlotPlaces::Find(const PciPlace& function) const {
  const PciPlace* at = &function;
  for (size_t step = 0; step <= m_Functions.size() && at != nullptr; ++step) {
    if (const FirmwareSlot* const slot = FindNamed(*at)) return Answer{slot, step > 0};
    at = m_Functions.BridgeOf(*at);
  }
  return std::nullopt;
}

}  // namespace ravctl
