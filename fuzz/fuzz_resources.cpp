// The lines of /proc/interrupts, /proc/dma, /proc/ioports and /proc/iomem, and the names that come from text files and
// commands: what a parser hands out lies inside the line.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "pci/adapter_names.h"
#include "pci/fc_controllers.h"
#include "pci/mac_information.h"
#include "pci/pci_names.h"
#include "pci/resource_lines.h"

namespace {

constexpr size_t kMaxName = 255;

void RequireInside(std::string_view part, std::string_view line) {
  if (part.empty()) return;
  if (part.data() < line.data() || part.data() + part.size() > line.data() + line.size()) std::abort();
}

void ParseResources(std::string_view line) {
  InterruptLine interrupt;
  if (ParseInterruptLine(line, interrupt)) {
    RequireInside(interrupt.controller, line);
    RequireInside(interrupt.device, line);
    RequireInside(FindEthernetName(interrupt.device), interrupt.device);
    if (interrupt.controller.size() > kMaxName) std::abort();
  }
  DmaLine dma;
  if (ParseDmaLine(line, dma)) RequireInside(dma.name, line);
  RangeLine range;
  if (!ParseRangeLine(line, range)) return;
  RequireInside(range.name, line);
  if (range.last < range.first || range.name.size() > kMaxName) std::abort();
}

void ParseNames(std::string_view line, PhysicalNicParser& nics) {
  LspciLine device;
  if (ParseLspciLine(line, device)) RequireInside(device.description, line);
  PhysicalNic nic;
  nics.AddLine(line, nic);
  CPciAddress address;
  if (ParsePciAddress(line, address) && !address.IsValid()) std::abort();
  MacAddress mac;
  ParseMacAddress(line, mac);
  FcController controller;
  ParseFcHostPath(line, controller);
  FcWwn wwn;
  ParseWwn(line, wwn);
}

// A name was found in the text, and by its own key.
void ParseAdapterNames(std::string_view text) {
  const AdapterNames names{std::string(text)};
  for (const int subsystem : {-1, 0x11B2}) {
    std::string_view device;
    std::string_view vendor;
    const bool found = names.Find(0x8086, 0x1041, subsystem, device, vendor);
    if (!vendor.empty() && text.find("\nVendor=") == std::string_view::npos) std::abort();
    if (found && text.find("\n1041") == std::string_view::npos) std::abort();
    if (text.find(device) == std::string_view::npos || text.find(vendor) == std::string_view::npos) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kMaxSize = 4096;
  if (size > kMaxSize) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  ParseAdapterNames(text);
  PhysicalNicParser nics;
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(line.size() < rest.size() ? line.size() + 1 : line.size());
    ParseResources(line);
    ParseNames(line, nics);
  }
  return 0;
}
