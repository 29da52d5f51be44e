#include "support/firmware_tables.h"

#include <numeric>

namespace {

std::string Byte(unsigned int value) {
  return std::string(1, static_cast<char>(value));
}

}  // namespace

std::string LittleEndian(uint64_t value, size_t bytes) {
  std::string text;
  for (size_t i = 0; i < bytes; ++i)
    text += Byte(value >> (8 * i) & 0xFF);
  return text;
}

void SetChecksum(std::string& bytes, size_t place, size_t length) {
  bytes[place] = 0;
  const auto end = bytes.begin() + static_cast<std::ptrdiff_t>(length);
  bytes[place] = static_cast<char>(-std::accumulate(bytes.begin(), end, 0));
}

SmbiosTable& SmbiosTable::Add(uint8_t type, const std::string& body, const std::vector<std::string>& strings) {
  m_Bytes += Byte(type) + Byte(static_cast<unsigned int>(4 + body.size())) + LittleEndian(m_NextHandle++, 2) + body;
  for (const std::string& text : strings)
    m_Bytes += text + '\0';
  m_Bytes.append(strings.empty() ? 2 : 1, '\0');
  return *this;
}

SmbiosTable& SmbiosTable::AddSlot(const SmbiosSlot& slot) {
  const std::string designation = Byte(1);
  const std::string width = Byte(0x0D);
  const std::string length = Byte(4);
  const std::string characteristics = LittleEndian(0x010C, 2);
  const std::string segment = LittleEndian(0, 2);
  return Add(9,
             designation + Byte(slot.type) + width + Byte(slot.usage) + length + LittleEndian(slot.id, 2) +
                 characteristics + segment + Byte(slot.bus) + Byte(slot.device * 8U),
             {"Slot " + std::to_string(slot.id)});
}

SmbiosTable& SmbiosTable::AddOnboardDevice(uint8_t bus, uint8_t device) {
  const std::string designationTypeInstance = Byte(1) + Byte(0x85) + Byte(1);
  return Add(41, designationTypeInstance + LittleEndian(0, 2) + Byte(bus) + Byte(device * 8U), {"Onboard LAN"});
}

std::string EntryPoint32(uint32_t tableAddress, uint16_t tableLength, uint16_t structures) {
  std::string bytes = "_SM_" + Byte(0) + Byte(31) + Byte(2) + Byte(8) + LittleEndian(64, 2) + std::string(6, '\0') +
                      "_DMI_" + Byte(0) + LittleEndian(tableLength, 2) + LittleEndian(tableAddress, 4) +
                      LittleEndian(structures, 2) + Byte(0x28);
  SetChecksum(bytes, 4, bytes.size());
  return bytes;
}

std::string EntryPoint64(uint64_t tableAddress, uint32_t maximumSize) {
  std::string bytes = "_SM3_" + Byte(0) + Byte(24) + Byte(3) + Byte(2) + Byte(0) + Byte(1) + Byte(0) +
                      LittleEndian(maximumSize, 4) + LittleEndian(tableAddress, 8);
  SetChecksum(bytes, 5, bytes.size());
  return bytes;
}

std::string IrqRoutingTable(const std::vector<IrqSlot>& slots) {
  std::string bytes = "$PIR" + Byte(0) + Byte(1) + LittleEndian(32 + 16 * slots.size(), 2) + std::string(24, '\0');
  for (const IrqSlot& entry : slots)
    bytes += Byte(entry.bus) + Byte(entry.device * 8U) + std::string(12, '\x60') + Byte(entry.slot) + Byte(0);
  SetChecksum(bytes, 31, bytes.size());
  return bytes;
}
