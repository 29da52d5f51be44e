#include "support/firmware_tables.h"

#include <numeric>

namespace {

std::string FromBytes(std::initializer_list<unsigned int> values) {
  std::string bytes;
  for (const unsigned int value : values)
    bytes += static_cast<char>(value);
  return bytes;
}

}  // namespace

std::string LittleEndian(uint64_t value, size_t bytes) {
  std::string text;
  for (size_t i = 0; i < bytes; ++i)
    text += static_cast<char>(value >> (8 * i));
  return text;
}

void SetChecksum(std::string& bytes, size_t place, size_t length) {
  bytes[place] = 0;
  const auto end = bytes.begin() + static_cast<std::ptrdiff_t>(length);
  bytes[place] = static_cast<char>(-std::accumulate(bytes.begin(), end, 0));
}

SmbiosTable& SmbiosTable::Add(uint8_t type, const std::string& body, const std::vector<std::string>& strings) {
  m_Bytes += FromBytes({type, static_cast<unsigned int>(4 + body.size())}) + LittleEndian(m_NextHandle++, 2) + body;
  for (const std::string& text : strings)
    m_Bytes += text + '\0';
  m_Bytes.append(strings.empty() ? 2 : 1, '\0');
  return *this;
}

// Designation, type, width, usage, length, number, characteristics, segment, bus, device and function.
SmbiosTable& SmbiosTable::AddSlot(const SmbiosSlot& slot) {
  return Add(
      9,
      FromBytes({1, slot.type, 13, slot.usage, 4, slot.id, 0, 12, 1, 0, 0, slot.bus, slot.device * 8U + slot.function}),
      {"Slot"});
}

// Designation, type, instance, segment, bus, device and function.
SmbiosTable& SmbiosTable::AddOnboardDevice(uint8_t bus, uint8_t device) {
  return Add(41, FromBytes({1, 0x85, 1, 0, 0, bus, device * 8U}), {"Onboard LAN"});
}

void WriteSmbios(const FixtureRoot& root, const SmbiosTable& table) {
  root.WriteFile(kSysfsEntryPoint, EntryPoint64(0, static_cast<uint32_t>(table.Bytes().size())));
  root.WriteFile(kSysfsTable, table.Bytes());
}

std::string EntryPoint32(uint32_t tableAddress, uint16_t tableLength, uint16_t structures) {
  std::string bytes = "_SM_" + FromBytes({0, 31, 2, 8, 64, 0, 0, 0, 0, 0, 0, 0}) + "_DMI_" + FromBytes({0}) +
                      LittleEndian(tableLength, 2) + LittleEndian(tableAddress, 4) + LittleEndian(structures, 2) +
                      FromBytes({0x28});
  std::string intermediate = bytes.substr(16);
  SetChecksum(intermediate, 5, intermediate.size());
  bytes.replace(16, intermediate.size(), intermediate);
  SetChecksum(bytes, 4, bytes.size());
  return bytes;
}

std::string EntryPoint64(uint64_t tableAddress, uint32_t maximumSize) {
  std::string bytes =
      "_SM3_" + FromBytes({0, 24, 3, 2, 0, 1, 0}) + LittleEndian(maximumSize, 4) + LittleEndian(tableAddress, 8);
  SetChecksum(bytes, 5, bytes.size());
  return bytes;
}

std::string IrqRoutingTable(const std::vector<IrqSlot>& slots) {
  std::string bytes = "$PIR" + FromBytes({0, 1}) + LittleEndian(32 + 16 * slots.size(), 2) + std::string(24, '\0');
  for (const IrqSlot& entry : slots)
    bytes += FromBytes({entry.bus, entry.device * 8U}) + std::string(12, '\x60') + FromBytes({entry.slot, 0});
  SetChecksum(bytes, 31, bytes.size());
  return bytes;
}
