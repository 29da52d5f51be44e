#pragma once

#include <memory>
#include <optional>
#include <string>

#include "pci/adapter_names.h"
#include "pci/pci_config_header.h"
#include "ravctl/answer/json.h"

struct pci_access;

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
// Reads the adapter name file when it is made and the ID file, some megabyte of text, at the first question. A file
// that is missing has no names; so has an ID file that is damaged. One thread.
class PciNameFinder {
 public:
  PciNameFinder();

  PciNames Find(const CPciCommonConfigHeader& header);
  // Of the ID file; empty for none.
  std::string VendorName(uint16_t vendor);

 private:
  template <typename... Ids>
  std::string LookUp(int what, Ids... ids);
  std::string SubsystemName(const CPciCommonConfigHeader& header);

  struct Close {
    void operator()(pci_access* access) const;
  };
  std::optional<AdapterNames> m_AdapterNames;
  std::unique_ptr<pci_access, Close> m_IdFile;
  bool m_IsDamaged = false;
};

}  // namespace ravctl
