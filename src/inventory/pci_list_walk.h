#pragma once

#include "pci/pci_config_list.h"

// Held by every scan that uses the tables of the process: bus tables and slot map.
CCriticalSection& DeviceTablesLock();

// Steps through a list that other threads may change in between: the list's lock is taken for each step alone.

// Copies the first entry behind that position; an invalid position stands before the first entry. False at the end,
// with the outputs as they were.
bool GetNextSlotData(const CPciConfigList& list, CPciAddress& position, CPciSlotData& data);

// Number of entries, read under the list's lock.
size_t CountSlotData(const CPciConfigList& list);

// CPciConfigList::ScanPciSlots with slots, under the lock of the tables; an exception ends the scan with what the list
// holds by then.
void ScanPciSlotsQuietly(CPciConfigList& list);
