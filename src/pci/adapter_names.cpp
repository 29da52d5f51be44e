#include "pci/adapter_names.h"

#include <algorithm>
#include <utility>

#include "platform/text_cursor.h"

namespace {

constexpr size_t kIdDigits = 4;
constexpr uint16_t kMaxId = 0xFFFF;

enum KeyKind : uint64_t { kVendor, kDevice, kDeviceWithSubsystem };

uint64_t KeyOf(KeyKind kind, uint64_t vendor, uint64_t device = 0, uint64_t subsystem = 0) {
  return kind << 48 | vendor << 32 | device << 16 | subsystem;
}

bool IsUpperHex(char digit) {
  return (digit >= '0' && digit <= '9') || (digit >= 'A' && digit <= 'F');
}

// Takes four upper-case hexadecimal digits from the front of the text.
bool TakeId(std::string_view& text, uint64_t& id) {
  const std::string_view digits = text.substr(0, kIdDigits);
  if (digits.size() < kIdDigits || !std::ranges::all_of(digits, IsUpperHex)) return false;
  text.remove_prefix(kIdDigits);
  return TextCursor(digits).Number(id, 16);
}

bool NextLine(std::string_view& text, std::string_view& line) {
  do {
    if (text.empty()) return false;
    const size_t end = text.find('\n');
    line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  } while (line.starts_with(';'));
  return true;
}

// "[8086] whatever" => 0x8086
bool ParseHeader(std::string_view line, uint64_t& vendor) {
  line.remove_prefix(1);
  return TakeId(line, vendor) && line.starts_with(']');
}

}  // namespace

AdapterNames::AdapterNames(std::string text) : m_Text(std::move(text)) {
  constexpr std::string_view kVendorKey = "Vendor=";
  std::vector<bool> seen(size_t{kMaxId} + 1);
  uint64_t vendor = 0;
  bool isInside = false;   // of a section that counts
  bool isAtStart = false;  // right behind its header
  std::string_view rest = m_Text;
  for (std::string_view line; NextLine(rest, line);) {
    if (line.starts_with('[')) {
      isInside = isAtStart = ParseHeader(line, vendor) && !seen[vendor];
      if (isInside) seen[vendor] = true;
    } else if (isAtStart) {
      isAtStart = false;
      isInside = line.starts_with(kVendorKey);
      if (isInside) m_Entries.push_back({KeyOf(kVendor, vendor), TextCursor::Trim(line.substr(kVendorKey.size()))});
    } else if (isInside) {
      AddDevice(vendor, line);
    }
  }
  std::ranges::stable_sort(m_Entries, {}, &Entry::key);
}

void AdapterNames::AddDevice(uint64_t vendor, std::string_view line) {
  uint64_t device = 0;
  uint64_t subsystem = 0;
  if (!TakeId(line, device)) return;
  const bool hasSubsystem = TakeId(line, subsystem);
  if (!line.starts_with('=')) return;
  const uint64_t key = KeyOf(hasSubsystem ? kDeviceWithSubsystem : kDevice, vendor, device, subsystem);
  m_Entries.push_back({key, TextCursor::Trim(line.substr(1))});
}

const AdapterNames::Entry* AdapterNames::FindEntry(uint64_t key) const {
  const auto found = std::ranges::lower_bound(m_Entries, key, {}, &Entry::key);
  return found != m_Entries.end() && found->key == key ? &*found : nullptr;
}

bool AdapterNames::Find(unsigned vendor, unsigned device, int subsystem, std::string_view& deviceName,
                        std::string_view& vendorName) const {
  if (vendor > kMaxId || device > kMaxId) return false;
  const Entry* const vendorEntry = FindEntry(KeyOf(kVendor, vendor));
  if (vendorEntry == nullptr) return false;
  vendorName = vendorEntry->name;
  const Entry* entry = nullptr;
  if (subsystem >= 0 && subsystem <= int{kMaxId}) {
    entry = FindEntry(KeyOf(kDeviceWithSubsystem, vendor, device, static_cast<uint64_t>(subsystem)));
  }
  if (entry == nullptr) entry = FindEntry(KeyOf(kDevice, vendor, device));
  if (entry == nullptr) return false;
  deviceName = entry->name;
  return true;
}
