#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "pci/pci_address.h"

// The MAC addresses of the network functions in the legacy bus tables.

// Gives every PCI function that a network interface belongs to the MAC address of that interface: by the interface's
// PCI address, or, where it has none, by its IRQ. Covers the interfaces that are named eth*, en*, em* or p*s* in sysfs,
// else those of a VMware host, else those that the socket layer knows. A function with a WWN keeps it; the tables hold
// segment 0 alone. One thread at a time; what cannot be read is left out.
void BusGetMACInformation();

// A physical NIC of a VMware host, as its management command lists it.
struct PhysicalNic {
  std::string device;
  std::string pci;
  std::string driver;
};

// Collects the NICs from the lines of that command: a line that begins, behind blanks, with "device" opens a record,
// "pci" and "driver" fill it, each with the text in its double quotes, cut to 31 characters.
class PhysicalNicParser {
 public:
  // True when the record is complete with this line.
  bool AddLine(std::string_view line, PhysicalNic& out);

 private:
  PhysicalNic m_Record;
};

using MacAddress = std::array<unsigned char, 6>;

// The parsers. Pure; a text of another form gives false.

// "52:54:00:0a:0b:0c\n"
bool ParseMacAddress(std::string_view text, MacAddress& out);

// The last component of a link: "../../../0000:02:00.0" => 0000:02:00.0; "02:00.0" is an address of segment 0.
bool ParsePciAddress(std::string_view path, CPciAddress& out);
