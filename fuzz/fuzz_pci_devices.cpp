// The lines of /proc/bus/pci/devices and /proc/vmware/pci: whatever they hold, an address stays in its ranges.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "pci/resource_lines.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kMaxSize = 4096;
  if (size > kMaxSize) return 0;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(line.size() < text.size() ? line.size() + 1 : line.size());
    PciDevicesLine device;
    if (ParsePciDevicesLine(line, device) && (device.device > 31 || device.function > 7)) std::abort();
    VmwarePciLine vmware;
    if (!ParseVmwarePciLine(line, vmware) && vmware.irq != 0) std::abort();
  }
  return 0;
}
