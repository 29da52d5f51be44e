#pragma once

#include <string>

#include "firmware/data_stream.h"
#include "pci/mac_information.h"

// The network interfaces of PCI functions and their MAC addresses.

// The interface of a function as sysfs knows it: its name, cut to nameSize - 1 characters and terminated, and its MAC
// address, cut to macSize bytes. Returns 1, or 0 with an empty name and a zero address when no interface named eth*,
// en*, em<digit>* or p<digit>*p<digit>* belongs to the function. Any thread may call it.
int GetMACInformation(unsigned segment, unsigned bus, unsigned device, unsigned function, char* name, int nameSize,
                      unsigned char* mac, int macSize);

// The address that the hardware was made with, whatever the interface uses now. Asks the kernel (ETHTOOL_GPERMADDR);
// a failure is traced, gives false and leaves the output as it was.
bool GetHardwareMacInformation(const std::string& interface, CDataStream& mac);

// GetMACInformation with whole texts. False leaves the outputs as they were.
bool FindNetInterface(unsigned segment, unsigned bus, unsigned device, unsigned function, std::string& name,
                      MacAddress& mac);
