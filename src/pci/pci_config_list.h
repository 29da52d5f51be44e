#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "pci/pci_address.h"
#include "pci/pci_config_header.h"
#include "platform/critical_section.h"
#include "platform/export.h"

// One scanned PCI function.
struct CPciSlotData {
  CPciAddress address;            // the key of the list as well
  CPciCommonConfigHeader header;  // as it was at the scan
  int32_t slot = -1;              // system slot number, -1 = not known
  // Empty after the scan; whoever names adapters fills them:
  std::string vendorName;
  std::string deviceName;
};

// The PCI functions of the machine, one entry per function, in address order.
//
// The list carries a recursive lock and the flag whether it is in use; neither is taken here, so that a user who needs
// several operations to belong together takes the lock around them. Copies take the entries and the flag; each list
// keeps its own lock. Never insert an invalid address: it has no place in the order.
class RAVD_EXPORT CPciConfigList : public std::map<CPciAddress, CPciSlotData> {
 public:
  // Empty, with the flag set.
  CPciConfigList() = default;
  // Takes the entries and the flag of the other list, whose lock is the caller's business:
  CPciConfigList(const CPciConfigList& other) : map(other), m_LockEnabled(other.m_LockEnabled) {}
  CPciConfigList& operator=(const CPciConfigList& other) {
    map::operator=(other);
    m_LockEnabled = other.m_LockEnabled;
    return *this;
  }

  // Reads the configuration header of every function that the kernel shows below /proc/bus/pci and adds a record of it
  // to the list, replacing one with the same address; what else the list holds stays. With slots, each function gets
  // its slot number from the firmware's slot table, or inherits that of the bridge in front of it; without, every slot
  // is -1. True when the list holds at least one entry.
  //
  // Takes no lock and throws nothing. Functions that do not answer are left out; a header that cannot be read, except
  // that of 0000:00:00.0, ends the scan with what was gathered so far, and so does a lack of memory.
  static bool ScanPciSlots(CPciConfigList& list, bool withSlots);

  // The lock of this list; it lives as long as the list does.
  CCriticalSection& Lock() const { return m_Lock; }
  bool m_LockEnabled = true;  // whether the lock is in use; for users of the list

 private:
  mutable CCriticalSection m_Lock;
};
