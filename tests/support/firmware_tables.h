#pragma once

#include "support/fixture_root.h"

// Firmware tables from readable descriptions, as the bytes that a machine would hold.

// Little-endian bytes of a field. LittleEndian(0x1234, 2) => 34 12
std::string LittleEndian(uint64_t value, size_t bytes);

// Sets the byte at that place so that the first length bytes sum to 0.
void SetChecksum(std::string& bytes, size_t place, size_t length);

struct SmbiosSlot {
  uint8_t id = 1;
  uint8_t type = 0xA5;  // PCI Express
  uint8_t usage = 4;    // in use
  uint8_t bus = 0;
  uint8_t device = 0;
  uint8_t function = 0;
};

// An SMBIOS structure table (DMTF DSP0134). Handles count from 0.
//
//   SmbiosTable().Add(1, "body", {"maker", "model"}).AddSlot({.id = 3, .bus = 0x3b}).AddEnd().Bytes()
class SmbiosTable {
 public:
  // body: what follows the four bytes of the header in the formatted area.
  SmbiosTable& Add(uint8_t type, const std::string& body, const std::vector<std::string>& strings = {});
  SmbiosTable& AddSlot(const SmbiosSlot& slot);
  SmbiosTable& AddOnboardDevice(uint8_t bus, uint8_t device);
  SmbiosTable& AddEnd() { return Add(127, ""); }

  const std::string& Bytes() const { return m_Bytes; }

 private:
  std::string m_Bytes;
  uint16_t m_NextHandle = 0;
};

// The files in which the kernel shows the tables of the firmware; the entry point names no table in memory.
inline constexpr const char* kSysfsEntryPoint = "/sys/firmware/dmi/tables/smbios_entry_point";
inline constexpr const char* kSysfsTable = "/sys/firmware/dmi/tables/DMI";
void WriteSmbios(const FixtureRoot& root, const SmbiosTable& table);

// Entry points with their checksums: "_SM_" of version 2.8 and "_SM3_" of version 3.2.
std::string EntryPoint32(uint32_t tableAddress, uint16_t tableLength, uint16_t structures);
std::string EntryPoint64(uint64_t tableAddress, uint32_t maximumSize);

struct IrqSlot {
  uint8_t bus, device, slot;
};

// A "$PIR" table of version 1.0 with its checksum at offset 31.
std::string IrqRoutingTable(const std::vector<IrqSlot>& slots);
