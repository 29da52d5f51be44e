#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What the text of an adapter name file says of PCI vendors and devices, as the legacy tables read it: a vendor's first
// section, headed "[8086]" at the start of a line, begins with "Vendor="; "10D31234=" at the start of a line of it
// names a device with one subsystem, "10D3=" the device whatever its subsystem. Hexadecimal digits are upper case; the
// first line of a key counts; lines that begin with ";" do not.
//
// Read once when it is made; look-ups cost the same however long the text is, and may come from any thread. The views
// handed out live as long as the object. Throws std::bad_alloc alone.
class AdapterNames {
 public:
  explicit AdapterNames(std::string text);
  AdapterNames(const AdapterNames&) = delete;
  AdapterNames& operator=(const AdapterNames&) = delete;

  // subsystem is the subsystem ID or -1; the name for exactly that subsystem comes before that of the device. True when
  // the device has a name. The vendor name is set as soon as the vendor is known; outputs without an answer stay.
  bool Find(unsigned vendor, unsigned device, int subsystem, std::string_view& deviceName,
            std::string_view& vendorName) const;

 private:
  struct Entry {
    uint64_t key;
    std::string_view name;
  };

  void AddDevice(uint64_t vendor, std::string_view line);
  const Entry* FindEntry(uint64_t key) const;

  const std::string m_Text;
  std::vector<Entry> m_Entries;  // by key, those with equal keys in the order of the text
};
