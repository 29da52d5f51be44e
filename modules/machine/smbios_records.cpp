#include "machine/smbios_records.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <string>

#include "firmware/smbios_lookup.h"

namespace {

// Types of structures, DMTF DSP0134, 7.1, 7.2, 7.3 and 7.18.
constexpr uint8_t kBios = 0;
constexpr uint8_t kSystem = 1;
constexpr uint8_t kBoard = 2;
constexpr uint8_t kMemoryDevice = 17;

// Slot data bus width, 7.10.2, from code 3 on.
constexpr std::array kSlotWidths = {"8 bit", "16 bit", "32 bit", "64 bit", "128 bit", "x1",
                                    "x2",    "x4",     "x8",     "x12",    "x16",     "x32"};
constexpr uint8_t kFirstSlotWidth = 3;

// Current usage, 7.10.3.
constexpr uint8_t kAvailable = 3;
constexpr uint8_t kInUse = 4;

struct TypeRow {
  uint8_t code;
  const char* name;
};
// Memory device type, 7.18.2; others are left out.
constexpr auto kMemoryTypes = std::to_array<TypeRow>({{0x12, "DDR"},
                                                      {0x13, "DDR2"},
                                                      {0x18, "DDR3"},
                                                      {0x1A, "DDR4"},
                                                      {0x1B, "LPDDR"},
                                                      {0x1C, "LPDDR2"},
                                                      {0x1D, "LPDDR3"},
                                                      {0x1E, "LPDDR4"},
                                                      {0x20, "HBM"},
                                                      {0x21, "HBM2"},
                                                      {0x22, "DDR5"},
                                                      {0x23, "LPDDR5"}});

// Bounded access to one structure: what lies behind its length is 0 or "".
class Structure {
 public:
  explicit Structure(const _DMI_20_HEADER& header) : m_Area(header.FormattedArea()) {}

  uint32_t Number(size_t offset, size_t bytes) const {
    uint32_t value = 0;
    if (offset + bytes > m_Area.size()) return 0;
    for (size_t i = bytes; i-- > 0;)
      value = value << 8 | m_Area[offset + i];
    return value;
  }
  uint8_t Byte(size_t offset) const { return static_cast<uint8_t>(Number(offset, 1)); }
  bool Has(size_t offset) const { return offset < m_Area.size(); }

  // The string whose number stands there, without blanks at its ends. The walk over the table has made sure that the
  // strings end inside it.
  std::string Text(size_t offset) const {
    const char* text = reinterpret_cast<const char*>(m_Area.data() + m_Area.size());
    const uint8_t number = Byte(offset);
    if (number == 0) return "";
    for (uint8_t i = 1; i < number && *text != '\0'; ++i)
      text += std::char_traits<char>::length(text) + 1;
    const std::string found = text;
    const size_t first = found.find_first_not_of(' ');
    return first == std::string::npos ? "" : found.substr(first, found.find_last_not_of(' ') - first + 1);
  }

 private:
  std::span<const unsigned char> m_Area;
};

// The structures of a type, or the empty list.
const SmbiosStructureList& All(const CSMBios& bios, uint8_t type) {
  static const SmbiosStructureList none;
  const SmbiosStructureList* list = bios.getStructuresByType(type);
  return list != nullptr ? *list : none;
}

// "" for codes that are not in the table.
std::string WidthOf(uint8_t code) {
  const size_t index = static_cast<size_t>(code) - kFirstSlotWidth;
  return code >= kFirstSlotWidth && index < kSlotWidths.size() ? kSlotWidths[index] : "";
}

void AppendMachine(const CSMBios& bios, bool withSerialNumbers, MachineRecords& records) {
  MachineRecord record{"machine", "machine", {}};
  for (const _DMI_20_HEADER* header : All(bios, kSystem)) {
    const Structure system(*header);
    record.Add("vendor", system.Text(4)).Add("product", system.Text(5));
    if (withSerialNumbers) record.Add("serial", system.Text(7));
    break;
  }
  for (const _DMI_20_HEADER* header : All(bios, kBoard)) {
    record.Add("board", Structure(*header).Text(5));
    break;
  }
  for (const _DMI_20_HEADER* header : All(bios, kBios)) {
    record.Add("bios_version", Structure(*header).Text(5)).Add("bios_date", Structure(*header).Text(8));
    break;
  }
  records.push_back(std::move(record));
}

// Whether something answers in the slot that the firmware places there. A bridge on a bus that no other bridge leads to
// is the port in front of the slot: what is behind it counts. Else a serial slot has the bus to itself, and a parallel
// one a device of it.
bool IsAnswered(const CPciConfigList& functions, uint32_t segment, uint8_t bus, uint8_t device) {
  const auto has = [&](const auto& isMeant) {
    return std::ranges::any_of(functions, [&](const auto& entry) {
      return entry.first.segment == segment && isMeant(entry.first, entry.second.header);
    });
  };
  const auto isBridgeThere = [&](const CPciAddress& address, const auto& header) {
    return address.bus == bus && address.device == device && header.IsBridge();
  };
  const bool isRootBus =
      !has([bus](const CPciAddress&, const auto& header) { return header.IsBridge() && header.SecondaryBus() == bus; });
  if (isRootBus && has(isBridgeThere)) {
    return has([&](const CPciAddress& port, const auto& header) {
      const auto isBehind = [&](const CPciAddress& address, const auto&) {
        return address.bus == header.SecondaryBus();
      };
      return isBridgeThere(port, header) && has(isBehind);
    });
  }
  return has([&](const CPciAddress& address, const auto&) {
    return address.bus == bus && (bus != 0 || address.device == device);
  });
}

void AppendSlot(const Structure& slot, const CPciConfigList& functions, bool isDouble, MachineRecords& records) {
  const uint32_t segment = slot.Number(0x0D, 2);
  const uint8_t bus = slot.Byte(0x0F);
  const uint8_t deviceFunction = slot.Byte(0x10);
  const bool hasAddress = slot.Has(0x10) && (bus != 0xFF || deviceFunction != 0xFF);
  const bool isAnswered = IsAnswered(functions, segment, bus, deviceFunction >> 3);
  const uint8_t usage = slot.Byte(7);
  const bool contradicts = hasAddress && ((usage == kAvailable && isAnswered) || (usage == kInUse && !isAnswered));
  const std::string number = std::to_string(slot.Number(9, 2));
  MachineRecord record{"slot", number + " " + slot.Text(4), {}};
  record.Add("slot", number)
      .Add("designation", slot.Text(4))
      .Add("width", WidthOf(slot.Byte(6)))
      .Add("source", "smbios");
  if (hasAddress) {
    char address[32];
    std::snprintf(address, sizeof address, "%04x:%02x:%02x.%x", segment, bus, deviceFunction >> 3, deviceFunction & 7);
    record.Add("address", address);
  }
  if (usage == kAvailable || usage == kInUse) record.Add("occupied", usage == kInUse ? "1" : "0");
  records.push_back(std::move(record.Add("conflict", isDouble || contradicts ? "1" : "0")));
}

void AppendSlots(const CSMBios& bios, const CPciConfigList& functions, MachineRecords& records) {
  std::map<uint32_t, int> numbers;
  for (const _DMI_20_HEADER* header : All(bios, kSmbiosSystemSlot))
    ++numbers[Structure(*header).Number(9, 2)];
  for (const _DMI_20_HEADER* header : All(bios, kSmbiosSystemSlot)) {
    const Structure slot(*header);
    AppendSlot(slot, functions, numbers[slot.Number(9, 2)] > 1, records);
  }
}

// In bytes; 0 for none and for one that is not known (7.18.1 and 7.18.5).
uint64_t SizeOf(const Structure& device) {
  const uint32_t size = device.Number(0x0C, 2);
  if (size == 0xFFFF) return 0;
  if (size == 0x7FFF) return uint64_t{device.Number(0x1C, 4) & 0x7FFFFFFF} << 20;
  return (size & 0x8000) != 0 ? uint64_t{size & 0x7FFF} << 10 : uint64_t{size} << 20;
}

void AppendDimms(const CSMBios& bios, bool withSerialNumbers, MachineRecords& records) {
  for (const _DMI_20_HEADER* header : All(bios, kMemoryDevice)) {
    const Structure device(*header);
    if (device.Number(0x0C, 2) == 0) continue;  // an empty socket
    const auto type = std::ranges::find(kMemoryTypes, device.Byte(0x12), &TypeRow::code);
    MachineRecord record{"dimm", device.Text(0x10) + " " + device.Text(0x11), {}};
    record.Add("locator", device.Text(0x10))
        .Add("bank", device.Text(0x11))
        .Add("manufacturer", device.Text(0x17))
        .Add("part", device.Text(0x1A))
        .Add("type", type != kMemoryTypes.end() ? type->name : "");
    if (withSerialNumbers) record.Add("serial", device.Text(0x18));
    if (SizeOf(device) != 0) record.Add("size", std::to_string(SizeOf(device)));
    records.push_back(std::move(record));
  }
}

}  // namespace

void AppendFirmwareRecords(const CPciConfigList& functions, bool withSerialNumbers, MachineRecords& records) {
  CSMBios bios;
  if (!bios.connect()) return;
  AppendMachine(bios, withSerialNumbers, records);
  AppendSlots(bios, functions, records);
  AppendDimms(bios, withSerialNumbers, records);
}
