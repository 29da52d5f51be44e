#include "support/pci_fixture.h"

#include "support/firmware_tables.h"

std::string BuildHeader(const FunctionDescription& function) {
  std::string bytes(64, '\0');
  const auto put = [&bytes](size_t offset, uint32_t value, size_t size) {
    bytes.replace(offset, size, LittleEndian(value, size));
  };
  put(0, function.vendor, 2);
  put(2, function.device, 2);
  put(8, function.revision, 1);
  put(9, function.classCode, 3);
  for (size_t index = 0; index < function.addresses.size(); ++index)
    put(16 + 4 * index, function.addresses[index], 4);
  put(14, function.headerType, 1);
  put(15, function.selfTest, 1);
  if ((function.headerType & 1) != 0) {
    put(24, function.primaryBus, 1);
    put(25, function.secondaryBus, 1);
  }
  put(44, function.subVendor, 2);
  put(46, function.subDevice, 2);
  put(60, function.interruptLine, 1);
  put(61, function.interruptPin, 1);
  return bytes;
}

void AddFunction(const FixtureRoot& root, const FunctionDescription& function) {
  root.WriteFile("/proc/bus/pci/" + function.bus + "/" + function.name, BuildHeader(function));
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
