#include "inventory/pci_list_walk.h"

#include <exception>

namespace {

constinit CCriticalSection s_DeviceTables;

}  // namespace

CCriticalSection& DeviceTablesLock() {
  return s_DeviceTables;
}

bool GetNextSlotData(const CPciConfigList& list, CPciAddress& position, CPciSlotData& data) {
  const CCriticalSectionLock lock(list.Lock());
  const auto next = position.IsValid() ? list.upper_bound(position) : list.begin();
  if (next == list.end()) return false;
  data = next->second;
  position = next->first;
  return true;
}

size_t CountSlotData(const CPciConfigList& list) {
  const CCriticalSectionLock lock(list.Lock());
  return list.size();
}

void ScanPciSlotsQuietly(CPciConfigList& list) {
  const CCriticalSectionLock lock(s_DeviceTables);
  try {
    CPciConfigList::ScanPciSlots(list, true);
  } catch (const std::exception&) {
    return;
  }
}
