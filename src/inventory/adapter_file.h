#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

// The text of an adapter name file with an index of its entries: look-ups cost the same however long the text is. Made
// once, then constant, so any thread may look up. Throws std::bad_alloc alone.
class AdapterFileText {
 public:
  explicit AdapterFileText(std::string text);
  AdapterFileText(const AdapterFileText&) = delete;
  AdapterFileText& operator=(const AdapterFileText&) = delete;

  // The first entry of that key in the first section of that name counts. Gives false, with the output as it was, when
  // there is none or its value is empty. The view lives as long as the object.
  //   "[8086]\n10D3 = NIC  ; gigabit" => "NIC"      "[8086]\n10D3 = NIC  " => "NIC  "
  bool Find(std::string_view section, std::string_view key, std::string_view& value) const;

 private:
  struct Entry {
    std::string_view section;
    std::string_view key;
    std::string_view value;
  };

  const std::string m_Text;
  std::vector<Entry> m_Entries;  // by section and key, equal ones in the order of the text
};

// The adapter name file: an INI file with one section per PCI vendor ID, "[8086]", that names the vendor under "Vendor"
// and its devices under "10D3" (device ID) or "10D31234" (device and subsystem ID).
//
// An object answers from the file as it was when the object was made; the file is read anew only when it is not the one
// that the last object has read. Any thread may make one, and use one that it lives for. The operations give false,
// with the output as it was, when the object has no file name, the file could not be read to its end, or the value is
// missing or empty.
//
// Lines are those of every INI file: pieces of at most 1023 characters, names compared exactly, white space around a
// key and in front of a value ignored. A value ends at its first ';' and then has no white space at its end; a value
// without ';' keeps the blanks and tabs behind it. Only its first 259 characters count.
class CAdapterFile {
 public:
  static constexpr const char* kDefaultPath = "/etc/pelrix/Adapter.ini";

  // Null counts as an empty name.
  explicit CAdapterFile(const char* fileName = kDefaultPath);

  bool IsReadable() const { return m_Text != nullptr; }
  const std::string& GetFileName() const { return m_FileName; }

  // Names of sections and keys may be null, which finds nothing.
  // The name that the sub vendor's section gives the vendor, else the one of the vendor's own section.
  bool GetVendorName(std::string& name, const char* vendorSection, const char* subVendorSection) const;
  bool GetSubVendorName(std::string& name, const char* subVendorSection) const;
  // The sub vendor does not matter: device names stand in the section of the vendor.
  bool GetDeviceName(std::string& name, const char* vendorSection, const char* subVendorSection,
                     const char* deviceKey) const;

 private:
  bool Find(std::string& value, const char* section, const char* key) const;

  std::string m_FileName;
  std::shared_ptr<const AdapterFileText> m_Text;  // null: not readable
};
