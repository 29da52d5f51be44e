// The scan of an INI file against the reader of the library: what the scan says is read is what a reader finds, in the
// order in which it finds it.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/ini_text.h"
#include "ravctl/ini/ini_scan.h"

namespace {

constexpr size_t kMaxInput = 64 * 1024;
constexpr size_t kMostSections = 16;  // a reader goes through the file for each

void Require(bool holds) {
  if (!holds) std::abort();
}

void CheckSection(std::string_view file, const ravctl::IniSection& section) {
  auto found = IniEntriesOf(file, section.name);
  for (const ravctl::IniEntry& entry : section.entries) {
    if (entry.key.empty()) continue;  // which no reader lists
    const auto place = std::ranges::find(found, entry.key, [](const auto& each) { return each.first; });
    Require(place != found.end() && (!entry.isRead || place->second == entry.value));
  }
  const auto isRead = [&section](const auto& each) {
    return std::ranges::any_of(section.entries, [&](const ravctl::IniEntry& entry) {
      return entry.isRead && entry.key == each.first && entry.value == each.second;
    });
  };
  Require(std::ranges::all_of(found, isRead));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  const std::string_view file(reinterpret_cast<const char*>(data), size);
  const auto lines = static_cast<size_t>(std::ranges::count(file, '\n')) + 1;
  const ravctl::IniScan scan = ravctl::ScanIni(file);
  Require(std::ranges::is_sorted(scan.findings, {}, &ravctl::IniFinding::line));
  for (const ravctl::IniFinding& finding : scan.findings)
    Require(finding.line >= 1 && finding.line <= lines && !finding.text.empty());
  size_t checked = 0;
  for (const ravctl::IniSection& section : scan.sections) {
    Require(section.line >= 1 && section.line <= lines);
    if (!section.isRead) {
      Require(std::ranges::none_of(section.entries, &ravctl::IniEntry::isRead));
    } else if (section.entries.size() < 256 && ++checked <= kMostSections) {
      CheckSection(file, section);
    }
  }
  return 0;
}
