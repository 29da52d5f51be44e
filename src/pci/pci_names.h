#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Names of PCI vendors and devices, from the adapter name file "/etc/pelrix/Adapter.ini" and, for devices that it does
// not know, from the output of "/sbin/lspci -nn", or of "/usr/bin/lspci -nn" on a system that has that one alone.
//
// Every look-up answers from the adapter name file as it is then, which is read again only after a change. The list
// that lspci gives is read once in the life of the process, whether lspci exists or not. One thread at a time. What is
// missing or cannot be read is traced and counts as not found; only std::bad_alloc is thrown.

// Device and vendor name of a function; subsystem is the subsystem ID or -1. True when the device has a name. The
// vendor name is set as soon as the vendor is known, even where the device is not; a name that is not found is "".
bool mapPciID(unsigned vendor, unsigned device, int subsystem, std::string& deviceName, std::string& vendorName);

// Description of a device in the list of lspci: the text between address and IDs, at most 97 characters. The output
// may be null and stays as it was for an unknown device.
bool getDeviceName(unsigned vendor, unsigned device, std::string* name);

// The same, cut to size - 1 characters and terminated. An unknown device leaves an empty text; false without a buffer.
bool GetPciDeviceName(unsigned vendor, unsigned device, char* buffer, size_t size);

// The parser of lspci's lines. Pure; the view points into the line.
// "00:03.0 Ethernet controller [0200]: Acme NIC [1af4:1041] (rev 01)"
//   => 0x1af4, 0x1041, "Ethernet controller [0200]: Acme NIC "
struct LspciLine {
  unsigned vendor = 0;
  unsigned device = 0;
  std::string_view description;
};
bool ParseLspciLine(std::string_view line, LspciLine& out);
