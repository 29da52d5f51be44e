#pragma once

#include <cstdint>

// The PCI part of the legacy bus tables. One thread at a time.

// Makes or refreshes the entries of every function that "/proc/bus/pci/devices" lists, with the resources of its line.
// Of each configuration file only the header is read.
//
// The tables know segment 0 alone, and the list of devices shows no segments: a function of another segment looks like
// the one with its bus, device and function in segment 0. A line whose IDs are not those of the header, and a line with
// an address that this pass has met before, are taken for such a function: only their resources are recorded, without
// an owner, like those of a function whose header cannot be read.
//
// False when the list of devices could not be opened, or when memory ran out on the way.
bool ScanPciFunctions();

// System slot number of a device, 0 when unknown. The slot table is read from the firmware once per process and stays
// usable while the process exits.
int8_t GetPciSlotNumber(unsigned bus, unsigned device);
