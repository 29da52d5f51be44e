#include "support/pci_fixture.h"

#include <cstdio>

namespace {

void Put(std::string& bytes, size_t offset, uint32_t value, size_t size) {
  for (size_t index = 0; index < size; ++index)
    bytes[offset + index] = static_cast<char>(value >> (8 * index));
}

}  // namespace

std::string BuildHeader(const FunctionDescription& function) {
  std::string bytes(64, '\0');
  Put(bytes, 0, function.vendor, 2);
  Put(bytes, 2, function.device, 2);
  Put(bytes, 8, function.revision, 1);
  Put(bytes, 9, function.classCode, 3);
  for (size_t index = 0; index < function.addresses.size(); ++index)
    Put(bytes, 16 + 4 * index, function.addresses[index], 4);
  Put(bytes, 14, function.headerType, 1);
  Put(bytes, 15, function.selfTest, 1);
  if ((function.headerType & 1) != 0) {
    Put(bytes, 24, function.primaryBus, 1);
    Put(bytes, 25, function.secondaryBus, 1);
  }
  Put(bytes, 44, function.subVendor, 2);
  Put(bytes, 46, function.subDevice, 2);
  Put(bytes, 60, function.interruptLine, 1);
  Put(bytes, 61, function.interruptPin, 1);
  return bytes;
}

void AddFunction(const FixtureRoot& root, const FunctionDescription& function) {
  root.WriteFile("/proc/bus/pci/" + function.bus + "/" + function.name, BuildHeader(function));
}

void WriteSlotTable(const FixtureRoot& root, const std::vector<SlotDescription>& slots) {
  constexpr uint8_t kPciSlot = 6;
  constexpr uint8_t kInUse = 4;
  std::string table;
  for (const SlotDescription& slot : slots) {
    std::string structure(17, '\0');
    Put(structure, 0, 9, 1);  // type: system slot
    Put(structure, 1, 17, 1);
    Put(structure, 5, kPciSlot, 1);
    Put(structure, 7, kInUse, 1);
    Put(structure, 9, slot.number, 1);
    Put(structure, 15, slot.bus, 1);
    Put(structure, 16, slot.device * 8U, 1);
    table += structure + std::string(2, '\0');
  }
  table += std::string("\x7F\x04\0\0\0\0", 6);  // end of table
  std::string entryPoint("_SM3_");
  entryPoint.resize(24, '\0');
  Put(entryPoint, 6, 24, 1);
  Put(entryPoint, 7, 3, 1);
  Put(entryPoint, 12, static_cast<uint32_t>(table.size()), 4);
  root.WriteFile("/sys/firmware/dmi/tables/smbios_entry_point", entryPoint);
  root.WriteFile("/sys/firmware/dmi/tables/DMI", table);
}

std::string DevicesLine(unsigned bus, unsigned device, unsigned function, unsigned vendor, unsigned deviceId,
                        unsigned irq, const std::vector<uint64_t>& addresses) {
  char text[64];
  std::snprintf(text, sizeof text, "%02x%02x\t%04x%04x\t%x", bus, device << 3 | function, vendor, deviceId, irq);
  std::string line = text;
  for (size_t index = 0; index < 7; ++index) {
    const uint64_t address = index < addresses.size() ? addresses[index] : 0;
    std::snprintf(text, sizeof text, "\t%16llx", static_cast<unsigned long long>(address));
    line += text;
  }
  return line + "\t driver\n";
}
