#pragma once

#include <cstdint>

// The PCI part of the legacy bus tables. One thread at a time.

// Makes or refreshes the entries of every function that "/proc/bus/pci/devices" lists, with the resources of its line.
// Of each configuration file only the header is read. Functions of segments other than 0 have no configuration file
// under the name that is tried here, so that only their resources are recorded, without an owner. False when the list
// of devices could not be opened, or when memory ran out on the way.
bool ScanPciFunctions();

// System slot number of a device, 0 when unknown. The slot table is read from the firmware once per process.
int8_t GetPciSlotNumber(unsigned bus, unsigned device);
