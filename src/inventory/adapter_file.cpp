#include "inventory/adapter_file.h"

#include <fcntl.h>

#include "platform/descriptor_io.h"
#include "platform/ini_text.h"
#include "platform/unique_fd.h"

namespace {

constexpr const char* kVendorKey = "Vendor";
constexpr size_t kMaxValue = 259;

// The reader of INI lines drops what follows a value. Blanks that nothing follows are part of a name.
std::string_view WithBlanksBehind(std::string_view value, std::string_view line) {
  const auto begin = static_cast<size_t>(value.data() - line.data());
  const size_t end = line.find_first_not_of(" \t", begin + value.size());
  const bool isComment = end != std::string_view::npos && line[end] == ';';
  return isComment ? value : line.substr(begin, (end == std::string_view::npos ? line.size() : end) - begin);
}

}  // namespace

bool FindAdapterFileValue(std::string_view text, std::string_view section, std::string_view key,
                          std::string_view& value) {
  bool entered = false;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, IniLineLength(text));
    text.remove_prefix(line.size());
    const IniLine parsed = ParseIniLine(line);
    if (parsed.kind == IniLine::kHeader) {
      if (entered) return false;
      entered = IsIniHeaderOf(parsed.header, section);
    } else if (entered && parsed.kind == IniLine::kEntry && parsed.key == key) {
      if (parsed.value.empty()) return false;
      value = WithBlanksBehind(parsed.value, line).substr(0, kMaxValue);
      return true;
    }
  }
  return false;
}

CAdapterFile::CAdapterFile(const char* fileName) : m_FileName(fileName != nullptr ? fileName : "") {
  if (m_FileName.empty()) return;
  const UniqueFd file(::open(m_FileName.c_str(), O_RDONLY | O_CLOEXEC));
  m_IsReadable = static_cast<bool>(file);
  if (m_IsReadable) ReadToEnd(file.Get(), m_Text);
}

bool CAdapterFile::Find(std::string& value, const char* section, const char* key) const {
  std::string_view found;
  if (section == nullptr || key == nullptr || !FindAdapterFileValue(m_Text, section, key, found)) return false;
  value = found;
  return true;
}

bool CAdapterFile::GetVendorName(std::string& name, const char* vendorSection, const char* subVendorSection) const {
  return Find(name, subVendorSection, kVendorKey) || Find(name, vendorSection, kVendorKey);
}

bool CAdapterFile::GetSubVendorName(std::string& name, const char* subVendorSection) const {
  return Find(name, subVendorSection, kVendorKey);
}

bool CAdapterFile::GetDeviceName(std::string& name, const char* vendorSection, const char* /*subVendorSection*/,
                                 const char* deviceKey) const {
  return Find(name, vendorSection, deviceKey);
}
