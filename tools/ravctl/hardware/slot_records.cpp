#include "ravctl/hardware/slot_records.h"

#include <algorithm>

#include "firmware/little_endian.h"
#include "firmware/smbios_walk.h"
#include "pci/pci_slot_map.h"
#include "ravctl/answer/record.h"
#include "ravctl/hardware/pci_records.h"
#include "ravctl/hardware/smbios_image.h"
#include "ravctl/hardware/smbios_names.h"

namespace ravctl {

namespace {

constexpr const char* kRoutingTable = "$PIR";
constexpr uint8_t kNoBus = 0xFF;

// Places in the structures (DMTF DSP0134, 7.10 and 7.42).
constexpr size_t kSlotSegment = 13;
constexpr size_t kSlotBus = 15;
constexpr size_t kSlotSize = 17;
constexpr size_t kOnboardSegment = 7;
constexpr size_t kOnboardBus = 9;
constexpr size_t kOnboardSize = 11;

// What a source says about the place of a slot.
struct Place {
  PciSlotData data = {kNoBus, 0, 0, 2, 2};
  uint16_t segment = 0;

  bool IsKnown() const { return data.bus != kNoBus; }
  Json Text() const {
    if (!IsKnown()) return nullptr;
    return AddressText({segment, data.bus, data.device, 0});
  }
};

struct Slot {
  Json record;
  Place place;
};

Slot MakeSlot(unsigned int number, const Place& place, const std::string& source, bool isOnboard) {
  return {{{"number", number},
           {"designation", nullptr},
           {"type", nullptr},
           {"width", nullptr},
           {"length", nullptr},
           {"usage", nullptr},
           {"address", place.Text()},
           {"card", nullptr},
           {"functions", Json::array()},
           {"is_onboard", isOnboard},
           {"sources", Json::array({source})}},
          place};
}

std::string SourceName(const SmbiosStructure& structure) {
  char text[48];
  std::snprintf(text, sizeof text, "SMBIOS type %u (0x%04X)", structure.type, structure.handle);
  return text;
}

uint8_t ByteAt(const SmbiosStructure& structure, size_t offset) {
  return ReadLittleEndian<uint8_t>(structure.area, offset);
}

Place PlaceAt(const SmbiosStructure& structure, size_t segment, size_t bus, size_t size) {
  Place place;
  if (structure.area.size() < size) return place;
  place.segment = ReadLittleEndian<uint16_t>(structure.area, segment);
  place.data.bus = ByteAt(structure, bus);
  place.data.device = static_cast<uint8_t>(ByteAt(structure, bus + 1) >> 3);
  return place;
}

Slot SlotOf(const SmbiosStructure& structure) {
  Place place = PlaceAt(structure, kSlotSegment, kSlotBus, kSlotSize);
  place.data.slot = ByteAt(structure, 9);
  place.data.slotType = ByteAt(structure, 5);
  place.data.currentUsage = ByteAt(structure, 7);
  Slot slot = MakeSlot(ReadLittleEndian<uint16_t>(structure.area, 9), place, SourceName(structure), false);
  slot.record["designation"] = TextOrNull(structure.String(ByteAt(structure, 4)));
  slot.record["type"] = SlotTypeName(place.data.slotType);
  slot.record["width"] = SlotWidthName(ByteAt(structure, 6));
  slot.record["length"] = SlotLengthName(ByteAt(structure, 8));
  slot.record["usage"] = SlotUsageName(place.data.currentUsage);
  return slot;
}

Slot OnboardOf(const SmbiosStructure& structure) {
  const Place place = PlaceAt(structure, kOnboardSegment, kOnboardBus, kOnboardSize);
  Slot slot = MakeSlot(0, place, SourceName(structure), true);
  slot.record["designation"] = TextOrNull(structure.String(ByteAt(structure, 4)));
  return slot;
}

class SlotList {
 public:
  void Add(Slot slot) { m_Slots.push_back(std::move(slot)); }

  // A source that says the same as one before confirms it.
  void Add(const PciSlotData& entry) {
    const auto agrees = [&entry](const Slot& slot) {
      return slot.place.data.slot == entry.slot && slot.place.IsKnown() &&
             slot.place.data.Matches(entry.bus, entry.device);
    };
    const auto found = std::ranges::find_if(m_Slots, agrees);
    if (found == m_Slots.end()) {
      m_Slots.push_back(MakeSlot(entry.slot, {entry, 0}, kRoutingTable, entry.slot == 0));
    } else if (std::ranges::find(found->record["sources"], kRoutingTable) == found->record["sources"].end()) {
      found->record["sources"].push_back(kRoutingTable);
    }
  }

  std::vector<Slot>& All() { return m_Slots; }

 private:
  std::vector<Slot> m_Slots;
};

// Whether a function is at the place itself; its bus and device are parts of its address "0000:17:00.0".
bool IsAt(const Json& function, const Slot& slot) {
  if (!slot.place.IsKnown()) return false;
  const std::string& address = function["address"].get_ref<const std::string&>();
  return std::stoul(address.substr(0, 4), nullptr, 16) == slot.place.segment &&
         slot.place.data.Matches(static_cast<unsigned int>(std::stoul(address.substr(5, 2), nullptr, 16)),
                                 static_cast<unsigned int>(std::stoul(address.substr(8, 2), nullptr, 16)));
}

std::string CardName(const Json& function) {
  for (const char* key : {"product", "sub_class", "class"}) {
    if (!function[key].is_null()) {
      return function[key].get<std::string>() + " [" + function["vendor_id"].get<std::string>() + ":" +
             function["device_id"].get<std::string>() + "]";
    }
  }
  return "";
}

// Bridges are no cards but lead to them.
void AddCard(const Json& functions, Slot& slot) {
  Json& record = slot.record;
  for (const Json& function : functions) {
    const bool isThere = IsAt(function, slot);
    const bool isBehind = record["is_onboard"] == false && function["slot"] == record["number"];
    if (!isThere && !isBehind) continue;
    record["functions"].push_back(function["address"]);
    if (record["card"].is_null() && function["is_bridge"] == false) record["card"] = TextOrNull(CardName(function));
  }
}

}  // namespace

Json ReadSlotRecords(bool withOnboard) {
  SlotList slots;
  SmbiosImage image;
  FindSmbiosImage(image);
  for (const SmbiosStructure& structure : image.structures) {
    if (structure.type == kSmbiosSystemSlot) slots.Add(SlotOf(structure));
    if (structure.type == kSmbiosOnboardDevice && withOnboard) slots.Add(OnboardOf(structure));
  }
  for (const PciSlotData& entry : CPciSlotMap::GetSlotMappingFromIrqRoutingTable()) {
    if (entry.slot != 0 || withOnboard) slots.Add(entry);
  }
  const Json functions = ReadPciRecords();
  Json records = Json::array();
  std::ranges::stable_sort(slots.All(), {}, [](const Slot& slot) { return slot.record["number"].get<unsigned>(); });
  for (Slot& slot : slots.All()) {
    AddCard(functions, slot);
    records.push_back(std::move(slot.record));
  }
  return records;
}

}  // namespace ravctl
