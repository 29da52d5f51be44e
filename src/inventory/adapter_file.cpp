#include "inventory/adapter_file.h"

#include <fcntl.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <set>
#include <utility>

#include "pci/file_version.h"
#include "platform/descriptor_io.h"
#include "platform/ini_text.h"
#include "platform/never_destroyed.h"
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

// "[8086]" => "8086"
std::optional<std::string_view> SectionOf(std::string_view header) {
  if (header.size() < 2 || header.back() != ']') return {};
  return header.substr(1, header.size() - 2);
}

constexpr auto kPlaceOf = [](const auto& entry) { return std::pair(entry.section, entry.key); };

// What was read last.
class LastFile {
 public:
  // Null when it was another version.
  std::shared_ptr<const AdapterFileText> Get(const FileVersion& version) {
    const std::lock_guard lock(m_Mutex);
    return version == m_Version ? m_Text : nullptr;
  }

  void Set(const FileVersion& version, std::shared_ptr<const AdapterFileText> text) {
    const std::lock_guard lock(m_Mutex);
    m_Version = version;
    m_Text.swap(text);
  }

 private:
  std::mutex m_Mutex;
  FileVersion m_Version;
  std::shared_ptr<const AdapterFileText> m_Text;
};
constinit NeverDestroyed<LastFile> s_LastFile;

}  // namespace

AdapterFileText::AdapterFileText(std::string text) : m_Text(std::move(text)) {
  std::set<std::string_view> sections;
  std::optional<std::string_view> section;  // none: outside of a section that counts
  for (std::string_view rest = m_Text; !rest.empty();) {
    const std::string_view line = rest.substr(0, IniLineLength(rest));
    rest.remove_prefix(line.size());
    const IniLine parsed = ParseIniLine(line);
    if (parsed.kind == IniLine::kHeader) {
      section = SectionOf(parsed.header);
      if (section && !sections.insert(*section).second) section.reset();
    } else if (section && parsed.kind == IniLine::kEntry) {
      const bool isEmpty = parsed.value.empty();
      const std::string_view value = isEmpty ? parsed.value : WithBlanksBehind(parsed.value, line).substr(0, kMaxValue);
      m_Entries.push_back({*section, parsed.key, value});
    }
  }
  std::ranges::stable_sort(m_Entries, {}, kPlaceOf);
}

bool AdapterFileText::Find(std::string_view section, std::string_view key, std::string_view& value) const {
  const auto found = std::ranges::lower_bound(m_Entries, std::pair(section, key), {}, kPlaceOf);
  if (found == m_Entries.end() || found->section != section || found->key != key || found->value.empty()) return false;
  value = found->value;
  return true;
}

CAdapterFile::CAdapterFile(const char* fileName) : m_FileName(fileName != nullptr ? fileName : "") {
  if (m_FileName.empty()) return;
  const UniqueFd file(::open(m_FileName.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return;
  const FileVersion version = FileVersion::Of(file.Get());
  m_Text = s_LastFile.object.Get(version);
  std::string text;
  if (m_Text != nullptr || !ReadToEnd(file.Get(), text)) return;
  m_Text = std::make_shared<const AdapterFileText>(std::move(text));
  s_LastFile.object.Set(version, m_Text);
}

bool CAdapterFile::Find(std::string& value, const char* section, const char* key) const {
  std::string_view found;
  if (m_Text == nullptr || section == nullptr || key == nullptr || !m_Text->Find(section, key, found)) return false;
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
