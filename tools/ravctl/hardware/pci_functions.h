#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "pci/pci_config_list.h"

namespace ravctl {

// Where a PCI function is, like CPciAddress, but for the segments of five digits that some hosts number from 10000 on.
struct PciPlace {
  uint32_t segment = 0;
  uint8_t bus = 0;
  uint8_t device = 0;
  uint8_t function = 0;

  static PciPlace Of(const CPciAddress& address);
  // "10000:e1:00.0"
  std::string Text() const;
  bool IsSameDevice(const PciPlace& other) const {
    return segment == other.segment && bus == other.bus && device == other.device;
  }

  auto operator<=>(const PciPlace&) const = default;
};

// Text as above, and nothing behind it.
std::optional<PciPlace> ParsePciPlace(std::string_view text);

// The functions of the machine with their configuration headers in address order: those of the library's scan, and
// from sysfs those in segments that the library has no number for.
class PciFunctions : public std::map<PciPlace, CPciCommonConfigHeader> {
 public:
  // Scans.
  PciFunctions();
  // Takes over what a scan found.
  explicit PciFunctions(const CPciConfigList& list);

  // The header of the function at that place; null when there is none.
  const CPciCommonConfigHeader* Find(const PciPlace& place) const;
  bool IsBridge(const PciPlace& place) const;
  // The bridge in front of the function; null for one on a root bus.
  const PciPlace* BridgeOf(const PciPlace& place) const;

 private:
  void AddWideSegments();
  void FindBridges();

  std::map<std::pair<uint32_t, uint8_t>, PciPlace> m_Bridges;  // by segment and the bus behind them
};

}  // namespace ravctl
