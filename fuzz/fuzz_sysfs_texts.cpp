// The parsers of what sysfs and udev tell of PCI functions and drives: whatever the text, what they find is written as
// they say.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "ravctl/hardware/block_devices.h"
#include "ravctl/hardware/pci_sysfs.h"

namespace {

constexpr size_t kMaxInput = 16 * 1024;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const ravctl::PciRanges ranges = ravctl::ParsePciRanges(text);
  if (ranges.ports.size() + ranges.memory.size() > 12) std::abort();
  if (const auto place = ravctl::LastPciPlace(text)) {
    if (text.find(place->Text()) == std::string_view::npos) std::abort();
  }
  if (ravctl::UdevProperty(text, "ID_MODEL_ENC").size() > size) std::abort();
  return 0;
}
