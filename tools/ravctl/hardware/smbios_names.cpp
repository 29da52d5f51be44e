#include "ravctl/hardware/smbios_names.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <span>

#include "firmware/little_endian.h"
#include "ravctl/base/text.h"
#include "ravctl/hardware/record.h"

namespace ravctl {

namespace {

struct Name {
  unsigned int code;
  const char* text;
};

constexpr auto kTypes = std::to_array<Name>({
    {0, "Platform Firmware Information"},
    {1, "System Information"},
    {2, "Baseboard"},
    {3, "System Enclosure"},
    {4, "Processor"},
    {5, "Memory Controller"},
    {6, "Memory Module"},
    {7, "Cache"},
    {8, "Port Connector"},
    {9, "System Slot"},
    {10, "Onboard Devices"},
    {11, "OEM Strings"},
    {12, "System Configuration Options"},
    {13, "Firmware Language"},
    {14, "Group Associations"},
    {15, "System Event Log"},
    {16, "Physical Memory Array"},
    {17, "Memory Device"},
    {18, "32-bit Memory Error"},
    {19, "Memory Array Mapped Address"},
    {20, "Memory Device Mapped Address"},
    {21, "Built-in Pointing Device"},
    {22, "Portable Battery"},
    {23, "System Reset"},
    {24, "Hardware Security"},
    {25, "System Power Controls"},
    {26, "Voltage Probe"},
    {27, "Cooling Device"},
    {28, "Temperature Probe"},
    {29, "Electrical Current Probe"},
    {30, "Out-of-Band Remote Access"},
    {31, "Boot Integrity Services"},
    {32, "System Boot Information"},
    {33, "64-bit Memory Error"},
    {34, "Management Device"},
    {35, "Management Device Component"},
    {36, "Management Device Threshold Data"},
    {37, "Memory Channel"},
    {38, "IPMI Device"},
    {39, "System Power Supply"},
    {40, "Additional Information"},
    {41, "Onboard Devices Extended Information"},
    {42, "Management Controller Host Interface"},
    {43, "TPM Device"},
    {44, "Processor Additional Information"},
    {45, "Firmware Inventory"},
    {46, "String Property"},
    {126, "Inactive"},
    {127, "End Of Table"},
});

constexpr auto kSlotTypes = std::to_array<Name>({
    {0x01, "Other"},
    {0x02, "Unknown"},
    {0x03, "ISA"},
    {0x04, "MCA"},
    {0x05, "EISA"},
    {0x06, "PCI"},
    {0x07, "PC Card"},
    {0x08, "VL-VESA"},
    {0x09, "Proprietary"},
    {0x0A, "Processor card"},
    {0x0B, "Memory card"},
    {0x0C, "I/O riser card"},
    {0x0D, "NuBus"},
    {0x0E, "PCI 66 MHz"},
    {0x0F, "AGP"},
    {0x10, "AGP 2X"},
    {0x11, "AGP 4X"},
    {0x12, "PCI-X"},
    {0x13, "AGP 8X"},
    {0x14, "M.2 socket 1-DP"},
    {0x15, "M.2 socket 1-SD"},
    {0x16, "M.2 socket 2"},
    {0x17, "M.2 socket 3"},
    {0x18, "MXM type I"},
    {0x19, "MXM type II"},
    {0x1A, "MXM type III"},
    {0x1B, "MXM type III-HE"},
    {0x1C, "MXM type IV"},
    {0x1D, "MXM 3.0 type A"},
    {0x1E, "MXM 3.0 type B"},
    {0x1F, "PCIe 2 U.2"},
    {0x20, "PCIe 3 U.2"},
    {0x21, "PCIe Mini 52-pin with keep-outs"},
    {0x22, "PCIe Mini 52-pin"},
    {0x23, "PCIe Mini 76-pin"},
    {0x24, "PCIe 4 U.2"},
    {0x25, "PCIe 5 U.2"},
    {0x26, "OCP NIC 3.0 small"},
    {0x27, "OCP NIC 3.0 large"},
    {0x28, "OCP NIC before 3.0"},
    {0x30, "CXL Flexbus 1.0"},
    {0xA0, "PC-98/C20"},
    {0xA1, "PC-98/C24"},
    {0xA2, "PC-98/E"},
    {0xA3, "PC-98/Local bus"},
    {0xA4, "PC-98/Card"},
    {0xA5, "PCIe"},
    {0xA6, "PCIe x1"},
    {0xA7, "PCIe x2"},
    {0xA8, "PCIe x4"},
    {0xA9, "PCIe x8"},
    {0xAA, "PCIe x16"},
    {0xAB, "PCIe 2"},
    {0xAC, "PCIe 2 x1"},
    {0xAD, "PCIe 2 x2"},
    {0xAE, "PCIe 2 x4"},
    {0xAF, "PCIe 2 x8"},
    {0xB0, "PCIe 2 x16"},
    {0xB1, "PCIe 3"},
    {0xB2, "PCIe 3 x1"},
    {0xB3, "PCIe 3 x2"},
    {0xB4, "PCIe 3 x4"},
    {0xB5, "PCIe 3 x8"},
    {0xB6, "PCIe 3 x16"},
    {0xB8, "PCIe 4"},
    {0xB9, "PCIe 4 x1"},
    {0xBA, "PCIe 4 x2"},
    {0xBB, "PCIe 4 x4"},
    {0xBC, "PCIe 4 x8"},
    {0xBD, "PCIe 4 x16"},
    {0xBE, "PCIe 5"},
    {0xBF, "PCIe 5 x1"},
    {0xC0, "PCIe 5 x2"},
    {0xC1, "PCIe 5 x4"},
    {0xC2, "PCIe 5 x8"},
    {0xC3, "PCIe 5 x16"},
    {0xC4, "PCIe 6 and later"},
    {0xC5, "EDSFF E1"},
    {0xC6, "EDSFF E3"},
});

constexpr auto kSlotWidths = std::to_array<Name>({
    {1, "Other"},
    {2, "Unknown"},
    {3, "8 bit"},
    {4, "16 bit"},
    {5, "32 bit"},
    {6, "64 bit"},
    {7, "128 bit"},
    {8, "x1"},
    {9, "x2"},
    {10, "x4"},
    {11, "x8"},
    {12, "x12"},
    {13, "x16"},
    {14, "x32"},
});

constexpr auto kSlotUsages =
    std::to_array<Name>({{1, "Other"}, {2, "Unknown"}, {3, "Available"}, {4, "In use"}, {5, "Unavailable"}});

constexpr auto kSlotLengths = std::to_array<Name>(
    {{1, "Other"}, {2, "Unknown"}, {3, "Short"}, {4, "Long"}, {5, "2.5\" drive"}, {6, "3.5\" drive"}});

constexpr auto kWakeUpTypes = std::to_array<Name>({{0, "Reserved"},
                                                   {1, "Other"},
                                                   {2, "Unknown"},
                                                   {3, "APM timer"},
                                                   {4, "Modem ring"},
                                                   {5, "LAN remote"},
                                                   {6, "Power switch"},
                                                   {7, "PCI PME#"},
                                                   {8, "AC power restored"}});

constexpr auto kBoardTypes = std::to_array<Name>({{1, "Unknown"},
                                                  {2, "Other"},
                                                  {3, "Server blade"},
                                                  {4, "Connectivity switch"},
                                                  {5, "System management module"},
                                                  {6, "Processor module"},
                                                  {7, "I/O module"},
                                                  {8, "Memory module"},
                                                  {9, "Daughter board"},
                                                  {10, "Motherboard"},
                                                  {11, "Processor and memory module"},
                                                  {12, "Processor and I/O module"},
                                                  {13, "Interconnect board"}});

constexpr auto kEnclosureTypes = std::to_array<Name>({{1, "Other"},
                                                      {2, "Unknown"},
                                                      {3, "Desktop"},
                                                      {4, "Low-profile desktop"},
                                                      {5, "Pizza box"},
                                                      {6, "Mini tower"},
                                                      {7, "Tower"},
                                                      {8, "Portable"},
                                                      {9, "Laptop"},
                                                      {10, "Notebook"},
                                                      {11, "Hand held"},
                                                      {12, "Docking station"},
                                                      {13, "All in one"},
                                                      {14, "Sub notebook"},
                                                      {15, "Space-saving"},
                                                      {16, "Lunch box"},
                                                      {17, "Main server"},
                                                      {18, "Expansion"},
                                                      {19, "Sub-chassis"},
                                                      {20, "Bus expansion"},
                                                      {21, "Peripheral"},
                                                      {22, "RAID"},
                                                      {23, "Rack mount"},
                                                      {24, "Sealed-case PC"},
                                                      {25, "Multi-system"},
                                                      {26, "CompactPCI"},
                                                      {27, "AdvancedTCA"},
                                                      {28, "Blade"},
                                                      {29, "Blade enclosure"},
                                                      {30, "Tablet"},
                                                      {31, "Convertible"},
                                                      {32, "Detachable"},
                                                      {33, "IoT gateway"},
                                                      {34, "Embedded PC"},
                                                      {35, "Mini PC"},
                                                      {36, "Stick PC"}});

constexpr auto kStates = std::to_array<Name>(
    {{1, "Other"}, {2, "Unknown"}, {3, "Safe"}, {4, "Warning"}, {5, "Critical"}, {6, "Non-recoverable"}});

constexpr auto kProcessorTypes = std::to_array<Name>({{1, "Other"},
                                                      {2, "Unknown"},
                                                      {3, "Central processor"},
                                                      {4, "Math processor"},
                                                      {5, "DSP processor"},
                                                      {6, "Video processor"}});

constexpr auto kMemoryLocations = std::to_array<Name>({{1, "Other"},
                                                       {2, "Unknown"},
                                                       {3, "System board"},
                                                       {4, "ISA add-on card"},
                                                       {5, "EISA add-on card"},
                                                       {6, "PCI add-on card"},
                                                       {7, "MCA add-on card"},
                                                       {8, "PCMCIA add-on card"},
                                                       {9, "Proprietary add-on card"},
                                                       {10, "NuBus"},
                                                       {0xA4, "CXL add-on card"}});

constexpr auto kMemoryUses = std::to_array<Name>({{1, "Other"},
                                                  {2, "Unknown"},
                                                  {3, "System memory"},
                                                  {4, "Video memory"},
                                                  {5, "Flash memory"},
                                                  {6, "Non-volatile RAM"},
                                                  {7, "Cache memory"}});

constexpr auto kErrorCorrections = std::to_array<Name>({{1, "Other"},
                                                        {2, "Unknown"},
                                                        {3, "None"},
                                                        {4, "Parity"},
                                                        {5, "Single-bit ECC"},
                                                        {6, "Multi-bit ECC"},
                                                        {7, "CRC"}});

constexpr auto kFormFactors = std::to_array<Name>({{1, "Other"},
                                                   {2, "Unknown"},
                                                   {3, "SIMM"},
                                                   {4, "SIP"},
                                                   {5, "Chip"},
                                                   {6, "DIP"},
                                                   {7, "ZIP"},
                                                   {8, "Proprietary card"},
                                                   {9, "DIMM"},
                                                   {10, "TSOP"},
                                                   {11, "Row of chips"},
                                                   {12, "RIMM"},
                                                   {13, "SODIMM"},
                                                   {14, "SRIMM"},
                                                   {15, "FB-DIMM"},
                                                   {16, "Die"},
                                                   {17, "CAMM"}});

constexpr auto kMemoryTypes =
    std::to_array<Name>({{1, "Other"},   {2, "Unknown"}, {3, "DRAM"},    {4, "EDRAM"},
                         {5, "VRAM"},    {6, "SRAM"},    {7, "RAM"},     {8, "ROM"},
                         {9, "Flash"},   {10, "EEPROM"}, {11, "FEPROM"}, {12, "EPROM"},
                         {13, "CDRAM"},  {14, "3DRAM"},  {15, "SDRAM"},  {16, "SGRAM"},
                         {17, "RDRAM"},  {18, "DDR"},    {19, "DDR2"},   {20, "DDR2 FB-DIMM"},
                         {24, "DDR3"},   {25, "FBD2"},   {26, "DDR4"},   {27, "LPDDR"},
                         {28, "LPDDR2"}, {29, "LPDDR3"}, {30, "LPDDR4"}, {31, "Logical non-volatile device"},
                         {32, "HBM"},    {33, "HBM2"},   {34, "DDR5"},   {35, "LPDDR5"},
                         {36, "HBM3"}});

constexpr auto kOnboardTypes = std::to_array<Name>({{1, "Other"},
                                                    {2, "Unknown"},
                                                    {3, "Video"},
                                                    {4, "SCSI controller"},
                                                    {5, "Ethernet"},
                                                    {6, "Token ring"},
                                                    {7, "Sound"},
                                                    {8, "PATA controller"},
                                                    {9, "SATA controller"},
                                                    {10, "SAS controller"},
                                                    {11, "Wireless LAN"},
                                                    {12, "Bluetooth"},
                                                    {13, "WWAN"},
                                                    {14, "eMMC"},
                                                    {15, "NVMe controller"},
                                                    {16, "UFS controller"}});

constexpr auto kIpmiTypes = std::to_array<Name>({{0, "Unknown"}, {1, "KCS"}, {2, "SMIC"}, {3, "BT"}, {4, "SSIF"}});

const char* FindName(std::span<const Name> names, unsigned int code) {
  const auto found = std::ranges::find(names, code, &Name::code);
  return found == names.end() ? nullptr : found->text;
}

std::string Upper(std::string text) {
  std::ranges::transform(text, text.begin(), [](char letter) {
    return letter >= 'a' && letter <= 'f' ? static_cast<char>(letter - 32) : letter;
  });
  return text;
}

std::string Prefixed(uint64_t value, int digits) {
  return "0x" + Upper(HexText(value, digits));
}

std::string NameOrCode(std::span<const Name> names, unsigned int code) {
  const char* name = FindName(names, code);
  return name != nullptr ? name : Prefixed(code, 2);
}

// ---- formats of fields

uint64_t Value(const SmbiosStructure& structure, size_t offset, size_t size) {
  return ReadLittleEndian<uint64_t>(structure.area.subspan(offset, size), 0);
}

using Format = std::string (*)(const SmbiosStructure& structure, size_t offset, size_t size);

std::string Text(const SmbiosStructure& structure, size_t offset, size_t) {
  return std::string(structure.String(structure.area[offset]));
}
std::string Number(const SmbiosStructure& structure, size_t offset, size_t size) {
  return std::to_string(Value(structure, offset, size));
}
std::string Hexadecimal(const SmbiosStructure& structure, size_t offset, size_t size) {
  return Prefixed(Value(structure, offset, size), static_cast<int>(2 * size));
}
template <const auto& kNames, unsigned int kMask = 0xFF>
std::string Named(const SmbiosStructure& structure, size_t offset, size_t) {
  return NameOrCode(kNames, structure.area[offset] & kMask);
}
// All ones stand for "none".
std::string Handle(const SmbiosStructure& structure, size_t offset, size_t size) {
  const uint64_t handle = Value(structure, offset, size);
  return handle == 0xFFFF ? "" : handle == 0xFFFE ? "Not provided" : Prefixed(handle, 4);
}
// 0 stands for "unknown".
std::string KnownNumber(const SmbiosStructure& structure, size_t offset, size_t size) {
  const uint64_t value = Value(structure, offset, size);
  return value == 0 ? "" : std::to_string(value);
}
std::string Megahertz(const SmbiosStructure& structure, size_t offset, size_t size) {
  const std::string value = KnownNumber(structure, offset, size);
  return value.empty() ? "" : value + " MHz";
}
// A field whose value says that another one, further behind, holds it: that one's text, empty without it.
std::string Extension(Format format, const SmbiosStructure& structure, size_t offset, size_t size) {
  return offset + size <= structure.area.size() ? format(structure, offset, size) : "";
}
std::string ExtendedTransfers(const SmbiosStructure& structure, size_t offset, size_t size) {
  const uint64_t value = Value(structure, offset, size) & 0x7FFFFFFF;
  return value == 0 ? "" : std::to_string(value) + " MT/s";
}
template <size_t kExtension>
std::string Transfers(const SmbiosStructure& structure, size_t offset, size_t size) {
  const uint64_t value = Value(structure, offset, size);
  if (value == 0xFFFF) return Extension(ExtendedTransfers, structure, kExtension, 4);
  return value == 0 ? "" : std::to_string(value) + " MT/s";
}
std::string Millivolts(const SmbiosStructure& structure, size_t offset, size_t size) {
  const std::string value = KnownNumber(structure, offset, size);
  return value.empty() ? "" : value + " mV";
}
std::string Bits(const SmbiosStructure& structure, size_t offset, size_t size) {
  const uint64_t value = Value(structure, offset, size);
  return value == 0 || value == 0xFFFF ? "" : std::to_string(value) + " bit";
}
// The unit, MiB or GiB, stands in the upper two bits.
std::string ExtendedRomSize(const SmbiosStructure& structure, size_t offset, size_t size) {
  const uint64_t value = Value(structure, offset, size);
  return value == 0 ? "" : HumanSize((value & 0x3FFF) << (value >> 14 == 1 ? 30 : 20));
}
// Units of 64 KiB less one.
std::string RomSize(const SmbiosStructure& structure, size_t offset, size_t) {
  const unsigned int value = structure.area[offset];
  return value == 0xFF ? Extension(ExtendedRomSize, structure, 0x18, 2) : HumanSize((value + 1ULL) << 16);
}
std::string Bytes64(const SmbiosStructure& structure, size_t offset, size_t size) {
  const uint64_t value = Value(structure, offset, size);
  return value == 0 || value == ~uint64_t{0} ? "" : HumanSize(value);
}
std::string Capacity(const SmbiosStructure& structure, size_t offset, size_t size) {
  const uint64_t value = Value(structure, offset, size);
  return value == 0x80000000 ? Extension(Bytes64, structure, 0x0F, 8) : HumanSize(value << 10);
}
std::string ExtendedModuleSize(const SmbiosStructure& structure, size_t offset, size_t size) {
  const uint64_t value = Value(structure, offset, size) & 0x7FFFFFFF;
  return value == 0 ? "" : HumanSize(value << 20);
}
// MiB, or KiB with the upper bit set.
std::string ModuleSize(const SmbiosStructure& structure, size_t offset, size_t size) {
  const uint64_t value = Value(structure, offset, size);
  if (value == 0) return "No module installed";
  if (value == 0x7FFF) return Extension(ExtendedModuleSize, structure, 0x1C, 4);
  return value == 0xFFFF ? "" : HumanSize((value & 0x7FFF) << ((value & 0x8000) != 0 ? 10 : 20));
}
// KiB, or units of 64 KiB with the upper bit set; two or four bytes.
std::string CacheSize(const SmbiosStructure& structure, size_t offset, size_t size) {
  const uint64_t value = Value(structure, offset, size);
  const uint64_t top = uint64_t{1} << (8 * size - 1);
  return HumanSize((value & (top - 1)) << ((value & top) != 0 ? 16 : 10));
}
std::string CacheLevel(const SmbiosStructure& structure, size_t offset, size_t size) {
  const uint64_t value = Value(structure, offset, size);
  return "L" + std::to_string((value & 7) + 1) + ((value & 0x80) != 0 ? ", enabled" : ", disabled");
}
// The first three groups are little-endian from version 2.6 on and stand as they are read before. All ones and all
// zeros are none.
std::string Uuid(const SmbiosStructure& structure, size_t offset, size_t) {
  constexpr uint16_t kSwapped = 0x0206;
  constexpr std::array<size_t, 16> kOrder = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
  const std::span<const unsigned char> bytes = structure.area.subspan(offset, 16);
  const bool isSwapped = structure.version == 0 || structure.version >= kSwapped;
  for (const unsigned int none : {0x00U, 0xFFU}) {
    if (std::ranges::all_of(bytes, [none](unsigned char byte) { return byte == none; })) return "";
  }
  std::string text;
  for (size_t place = 0; place < kOrder.size(); ++place) {
    if (text.size() == 8 || text.size() == 13 || text.size() == 18 || text.size() == 23) text += '-';
    text += HexText(bytes[isSwapped ? kOrder[place] : place], 2);
  }
  return text;
}
std::string Release(const SmbiosStructure& structure, size_t offset, size_t) {
  if (structure.area[offset] == 0xFF && structure.area[offset + 1] == 0xFF) return "";
  return std::to_string(structure.area[offset]) + "." + std::to_string(structure.area[offset + 1]);
}
std::string ProcessorStatus(const SmbiosStructure& structure, size_t offset, size_t) {
  constexpr auto kStatus = std::to_array<Name>({{0, "unknown"},
                                                {1, "enabled"},
                                                {2, "disabled by the user"},
                                                {3, "disabled by the firmware"},
                                                {4, "idle"},
                                                {7, "other"}});
  const unsigned int value = structure.area[offset];
  return (value & 0x40) == 0 ? "Socket empty" : "Populated, " + NameOrCode(kStatus, value & 7);
}
// Tenths of a volt with the upper bit set; without it, what the socket can.
std::string Voltage(const SmbiosStructure& structure, size_t offset, size_t) {
  constexpr auto kVoltages = std::to_array<Name>({{1, "5.0 V"}, {2, "3.3 V"}, {4, "2.9 V"}});
  const unsigned int value = structure.area[offset];
  const unsigned int tenths = value & 0x7F;
  if ((value & 0x80) != 0) return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " V";
  std::string text;
  for (const Name& voltage : kVoltages) {
    if ((value & voltage.code) != 0) text += (text.empty() ? "" : ", ") + std::string(voltage.text);
  }
  return text;
}
std::string DeviceFunction(const SmbiosStructure& structure, size_t offset, size_t) {
  const unsigned int value = structure.area[offset];
  return HexText(value >> 3, 2) + "." + std::to_string(value & 7);
}
std::string Bus(const SmbiosStructure& structure, size_t offset, size_t) {
  return HexText(structure.area[offset], 2);
}
std::string OnboardType(const SmbiosStructure& structure, size_t offset, size_t) {
  const unsigned int value = structure.area[offset];
  return NameOrCode(kOnboardTypes, value & 0x7F) + ((value & 0x80) != 0 ? ", enabled" : ", disabled");
}
std::string IpmiRevision(const SmbiosStructure& structure, size_t offset, size_t) {
  return std::to_string(structure.area[offset] >> 4) + "." + std::to_string(structure.area[offset] & 0xF);
}
// Seven bits of address, then one that is none.
std::string I2cAddress(const SmbiosStructure& structure, size_t offset, size_t) {
  return Prefixed(structure.area[offset] >> 1, 2);
}
// Bit 0 says what the address is one of; its own lowest bit stands in the modifier. SSIF has an I2C address there.
std::string IpmiAddress(const SmbiosStructure& structure, size_t offset, size_t size) {
  constexpr uint8_t kSsif = 4;
  constexpr size_t kModifier = 0x10;
  if (structure.area[4] == kSsif) return I2cAddress(structure, offset, 1) + " (SMBus)";
  const uint64_t value = Value(structure, offset, size);
  const uint64_t lowest = kModifier < structure.area.size() ? structure.area[kModifier] >> 4 & 1 : 0;
  return Prefixed((value & ~uint64_t{1}) | lowest, 16) + ((value & 1) != 0 ? " (I/O)" : " (memory-mapped)");
}

struct FieldRow {
  uint8_t type;
  uint8_t offset;
  uint8_t size;
  const char* name;
  Format format;
  bool isExtension = false;  // of a field before it: left out when that one holds the value
};

constexpr auto kFields = std::to_array<FieldRow>({
    {0, 0x04, 1, "Vendor", Text},
    {0, 0x05, 1, "Version", Text},
    {0, 0x08, 1, "Release Date", Text},
    {0, 0x09, 1, "ROM Size", RomSize},
    {0, 0x0A, 8, "Characteristics", Hexadecimal},
    {0, 0x14, 2, "Firmware Release", Release},
    {0, 0x16, 2, "Embedded Controller Release", Release},
    {0, 0x18, 2, "Extended ROM Size", ExtendedRomSize, true},
    {1, 0x04, 1, "Manufacturer", Text},
    {1, 0x05, 1, "Product Name", Text},
    {1, 0x06, 1, "Version", Text},
    {1, 0x07, 1, "Serial Number", Text},
    {1, 0x08, 16, "UUID", Uuid},
    {1, 0x18, 1, "Wake-up Type", Named<kWakeUpTypes>},
    {1, 0x19, 1, "SKU Number", Text},
    {1, 0x1A, 1, "Family", Text},
    {2, 0x04, 1, "Manufacturer", Text},
    {2, 0x05, 1, "Product Name", Text},
    {2, 0x06, 1, "Version", Text},
    {2, 0x07, 1, "Serial Number", Text},
    {2, 0x08, 1, "Asset Tag", Text},
    {2, 0x0A, 1, "Location In Chassis", Text},
    {2, 0x0B, 2, "Chassis Handle", Handle},
    {2, 0x0D, 1, "Type", Named<kBoardTypes>},
    {3, 0x04, 1, "Manufacturer", Text},
    {3, 0x05, 1, "Type", Named<kEnclosureTypes, 0x7F>},
    {3, 0x06, 1, "Version", Text},
    {3, 0x07, 1, "Serial Number", Text},
    {3, 0x08, 1, "Asset Tag", Text},
    {3, 0x09, 1, "Boot-up State", Named<kStates>},
    {3, 0x0A, 1, "Power Supply State", Named<kStates>},
    {3, 0x0B, 1, "Thermal State", Named<kStates>},
    {3, 0x11, 1, "Height Units", KnownNumber},
    {3, 0x12, 1, "Power Cords", KnownNumber},
    {4, 0x04, 1, "Socket", Text},
    {4, 0x05, 1, "Type", Named<kProcessorTypes>},
    {4, 0x07, 1, "Manufacturer", Text},
    {4, 0x08, 8, "ID", Hexadecimal},
    {4, 0x10, 1, "Version", Text},
    {4, 0x11, 1, "Voltage", Voltage},
    {4, 0x12, 2, "External Clock", Megahertz},
    {4, 0x14, 2, "Maximum Speed", Megahertz},
    {4, 0x16, 2, "Current Speed", Megahertz},
    {4, 0x18, 1, "Status", ProcessorStatus},
    {4, 0x1A, 2, "L1 Cache Handle", Handle},
    {4, 0x1C, 2, "L2 Cache Handle", Handle},
    {4, 0x1E, 2, "L3 Cache Handle", Handle},
    {4, 0x20, 1, "Serial Number", Text},
    {4, 0x21, 1, "Asset Tag", Text},
    {4, 0x22, 1, "Part Number", Text},
    {4, 0x23, 1, "Cores", KnownNumber},
    {4, 0x24, 1, "Cores Enabled", KnownNumber},
    {4, 0x25, 1, "Threads", KnownNumber},
    {4, 0x2A, 2, "Cores (16 bit)", KnownNumber},
    {4, 0x2C, 2, "Cores Enabled (16 bit)", KnownNumber},
    {4, 0x2E, 2, "Threads (16 bit)", KnownNumber},
    {7, 0x04, 1, "Socket", Text},
    {7, 0x05, 2, "Configuration", CacheLevel},
    {7, 0x07, 2, "Maximum Size", CacheSize},
    {7, 0x09, 2, "Installed Size", CacheSize},
    {7, 0x13, 4, "Maximum Size (32 bit)", CacheSize},
    {7, 0x17, 4, "Installed Size (32 bit)", CacheSize},
    {8, 0x04, 1, "Internal Designator", Text},
    {8, 0x06, 1, "External Designator", Text},
    {9, 0x04, 1, "Designation", Text},
    {9, 0x05, 1, "Type", Named<kSlotTypes>},
    {9, 0x06, 1, "Width", Named<kSlotWidths>},
    {9, 0x07, 1, "Current Usage", Named<kSlotUsages>},
    {9, 0x08, 1, "Length", Named<kSlotLengths>},
    {9, 0x09, 2, "Number", Number},
    {9, 0x0D, 2, "Segment", Number},
    {9, 0x0F, 1, "Bus", Bus},
    {9, 0x10, 1, "Device and Function", DeviceFunction},
    {11, 0x04, 1, "Strings", Number},
    {12, 0x04, 1, "Strings", Number},
    {13, 0x04, 1, "Languages", Number},
    {13, 0x15, 1, "Current Language", Text},
    {16, 0x04, 1, "Location", Named<kMemoryLocations>},
    {16, 0x05, 1, "Use", Named<kMemoryUses>},
    {16, 0x06, 1, "Error Correction", Named<kErrorCorrections>},
    {16, 0x07, 4, "Maximum Capacity", Capacity},
    {16, 0x0B, 2, "Error Information Handle", Handle},
    {16, 0x0D, 2, "Memory Devices", Number},
    {16, 0x0F, 8, "Extended Maximum Capacity", Bytes64, true},
    {17, 0x04, 2, "Array Handle", Handle},
    {17, 0x06, 2, "Error Information Handle", Handle},
    {17, 0x08, 2, "Total Width", Bits},
    {17, 0x0A, 2, "Data Width", Bits},
    {17, 0x0C, 2, "Size", ModuleSize},
    {17, 0x0E, 1, "Form Factor", Named<kFormFactors>},
    {17, 0x10, 1, "Locator", Text},
    {17, 0x11, 1, "Bank Locator", Text},
    {17, 0x12, 1, "Type", Named<kMemoryTypes>},
    {17, 0x15, 2, "Speed", Transfers<0x54>},
    {17, 0x17, 1, "Manufacturer", Text},
    {17, 0x18, 1, "Serial Number", Text},
    {17, 0x19, 1, "Asset Tag", Text},
    {17, 0x1A, 1, "Part Number", Text},
    {17, 0x1C, 4, "Extended Size", ExtendedModuleSize, true},
    {17, 0x20, 2, "Configured Speed", Transfers<0x58>},
    {17, 0x26, 2, "Configured Voltage", Millivolts},
    {17, 0x54, 4, "Extended Speed", ExtendedTransfers, true},
    {17, 0x58, 4, "Extended Configured Speed", ExtendedTransfers, true},
    {19, 0x04, 4, "Start Address (KiB)", Hexadecimal},
    {19, 0x08, 4, "End Address (KiB)", Hexadecimal},
    {19, 0x0C, 2, "Array Handle", Handle},
    {19, 0x0E, 1, "Partition Width", Number},
    {38, 0x04, 1, "Interface Type", Named<kIpmiTypes>},
    {38, 0x05, 1, "Revision", IpmiRevision},
    {38, 0x06, 1, "I2C Address", I2cAddress},
    {38, 0x08, 8, "Base Address", IpmiAddress},
    {39, 0x05, 1, "Location", Text},
    {39, 0x06, 1, "Name", Text},
    {39, 0x07, 1, "Manufacturer", Text},
    {39, 0x08, 1, "Serial Number", Text},
    {39, 0x09, 1, "Asset Tag", Text},
    {39, 0x0A, 1, "Part Number", Text},
    {39, 0x0B, 1, "Revision", Text},
    {41, 0x04, 1, "Designation", Text},
    {41, 0x05, 1, "Type", OnboardType},
    {41, 0x06, 1, "Instance", Number},
    {41, 0x07, 2, "Segment", Number},
    {41, 0x09, 1, "Bus", Bus},
    {41, 0x0A, 1, "Device and Function", DeviceFunction},
});

bool Reaches(const SmbiosStructure& structure, const FieldRow& row) {
  return row.type == structure.type && size_t{row.offset} + row.size <= structure.area.size();
}

}  // namespace

std::string SmbiosHandleText(unsigned int handle) {
  return "0x" + HexBytes(std::string{static_cast<char>(handle >> 8), static_cast<char>(handle)}, "", kUpperHex);
}

std::string SmbiosTypeName(uint8_t type) {
  const char* name = FindName(kTypes, type);
  return name != nullptr ? name : type >= 128 ? "OEM-specific" : "Unknown";
}

std::vector<std::string> SmbiosTypeNames() {
  std::vector<std::string> names;
  for (const Name& name : kTypes)
    names.emplace_back(name.text);
  return names;
}

std::vector<SmbiosField> DecodeSmbiosFields(const SmbiosStructure& structure) {
  std::vector<SmbiosField> fields;
  for (const FieldRow& row : kFields) {
    if (!Reaches(structure, row)) continue;
    std::string value = row.format(structure, row.offset, row.size);
    if (!row.isExtension || !value.empty()) fields.push_back({row.name, std::move(value)});
  }
  return fields;
}

std::vector<unsigned int> MissingSmbiosStrings(const SmbiosStructure& structure) {
  std::vector<unsigned int> missing;
  for (const FieldRow& row : kFields) {
    if (row.format != Text || !Reaches(structure, row)) continue;
    const unsigned int number = structure.area[row.offset];
    if (!structure.HasString(number)) missing.push_back(number);
  }
  return missing;
}

std::string SlotTypeName(uint8_t code) {
  return NameOrCode(kSlotTypes, code);
}
std::string SlotWidthName(uint8_t code) {
  return NameOrCode(kSlotWidths, code);
}
std::string SlotUsageName(uint8_t code) {
  return NameOrCode(kSlotUsages, code);
}
std::string SlotLengthName(uint8_t code) {
  return NameOrCode(kSlotLengths, code);
}

}  // namespace ravctl
