#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

#include "pci/pci_address.h"

// Names of the kernel drivers that are bound to PCI functions, from /proc/bus/pci/devices.

// The driver of a function, cut to size - 1 characters and terminated. The file does not know segments: function,
// device and bus alone are compared, and of several lines with the same ones the first counts. Returns 1, or 0 with an
// empty text when the file cannot be read, has no such line or names no driver there. Any thread may call it.
int GetAdapterDriverName(unsigned segment, unsigned bus, unsigned device, unsigned function, char* buffer, int size);

// The same for a scan that asks for many functions: the file is read at the first question that can read it and
// looked at once. Belongs to one thread.
class PciDriverTable {
 public:
  // The name, cut to that length; false leaves the output as it was.
  bool Find(unsigned segment, unsigned bus, unsigned device, unsigned function, size_t maxLength, std::string& driver);

 private:
  bool Read();

  std::string m_Text;
  std::unordered_map<uint16_t, std::string_view> m_Lines;  // by bus, device and function; views into the text
  bool m_IsRead = false;
};

// The parsers. Pure; the views point into the line.

// "0018\t80861521..." => 0x0018. False when the line does not begin with a hexadecimal number of 16 bits.
bool ParsePciDevicesKey(std::string_view line, uint16_t& key);

// The text behind the 17 numbers of the line, at most 255 characters of it and without the blanks in front; blanks
// behind it stay. Empty when there is none.
std::string_view ParsePciDevicesDriver(std::string_view line);
