#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "pci/adapter_names.h"
#include "pci/pci_config_header.h"
#include "ravctl/answer/json.h"

namespace ravctl {

// Names of a PCI function, each null when there is none.
struct PciNames {
  Json vendor;
  Json product;
  Json subsystem;  // "Maker Model" of the card that the function is on, or the maker alone
  Json source;     // where the product is from: "Adapter.ini" or "pci.ids"
};

// Finds names: the product and its vendor in the adapter name file "/etc/pelrix/Adapter.ini" where that has the device,
// everything else in the PCI ID file, which libpci brings, without asking the network or the hardware database.
//
// Reads the adapter name file when it is made, and the ID file, more than a megabyte of text, at the first question in
// the process. A file that is missing has no names; so has an ID file that is damaged. One thread.
class PciNameFinder {
 public:
  PciNameFinder();

  PciNames Find(const CPciCommonConfigHeader& header) const;
  // Of the ID file; empty for none.
  static std::string VendorName(uint16_t vendor);

 private:
  std::optional<AdapterNames> m_AdapterNames;
};

}  // namespace ravctl
