#include "ravctl/answer/record.h"

#include <fnmatch.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "pci/pci_names.h"

namespace ravctl {

namespace {

constexpr const char* kSmbiosTable = "/sys/firmware/dmi/tables/DMI";

std::string TextOf(const Json& value) {
  return value.is_string() ? value.get<std::string>() : value.is_null() ? "" : value.dump();
}

bool HasMatch(const Json& value, const std::string& pattern) {
  if (!value.is_structured()) return !value.is_boolean() && MatchesPart(TextOf(value), pattern);
  return std::any_of(value.begin(), value.end(), [&pattern](const Json& part) { return HasMatch(part, pattern); });
}

// "Ethernet controller [0200]: Maker and model" => "Maker and model"
std::string_view WithoutClass(std::string_view description) {
  const size_t end = description.find("]: ");
  return end == std::string_view::npos ? description : description.substr(end + 3);
}

}  // namespace

Json AddressText(const CPciAddress& address) {
  if (!address.IsValid()) return nullptr;
  char text[32];
  std::snprintf(text, sizeof text, "%04x:%02x:%02x.%x", address.segment, address.bus, address.device, address.function);
  return text;
}

std::string HexText(uint64_t value, int digits) {
  char text[24];
  std::snprintf(text, sizeof text, "%0*llx", digits, static_cast<unsigned long long>(value));
  return text;
}

Json BytesText(std::span<const unsigned char> bytes) {
  if (std::ranges::all_of(bytes, [](unsigned char byte) { return byte == 0; })) return nullptr;
  std::string text;
  for (const unsigned char byte : bytes)
    text += (text.empty() ? "" : ":") + HexText(byte, 2);
  return text;
}

Json TextOrNull(std::string_view text) {
  const size_t first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return nullptr;
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

PciNames FindPciNames(const CPciCommonConfigHeader& header) {
  std::string product;
  std::string vendor;
  const int subsystem = header.SubsystemId() != 0 ? header.SubsystemId() : -1;
  mapPciID(header.VendorId(), header.DeviceId(), subsystem, product, vendor);
  return {TextOrNull(vendor), TextOrNull(WithoutClass(product))};
}

bool MatchesWhole(std::string_view text, const std::string& pattern) {
  return ::fnmatch(pattern.c_str(), std::string(text).c_str(), FNM_CASEFOLD) == 0;
}

bool MatchesPart(std::string_view text, const std::string& pattern) {
  const bool isPattern = pattern.find_first_of("*?[") != std::string::npos;
  return MatchesWhole(text, isPattern ? pattern : "*" + pattern + "*");
}

void RecordFilter::AddOption(CLI::App& command, const std::string& option, const std::string& key,
                             const std::string& help) {
  KeyPatterns& entry = *m_Keys.emplace_back(std::make_unique<KeyPatterns>(KeyPatterns{key, {}}));
  command.add_option(option, entry.patterns, help)->type_name("PATTERN")->allow_extra_args(false);
}

void RecordFilter::AddMatchOption(CLI::App& command) {
  command.add_option("-m,--match", m_Anywhere, "Only records with this text, or matched by this pattern, in any field")
      ->type_name("PATTERN")
      ->allow_extra_args(false);
}

bool RecordFilter::IsEmpty() const {
  return m_Anywhere.empty() && std::ranges::all_of(m_Keys, [](const auto& entry) { return entry->patterns.empty(); });
}

bool RecordFilter::Matches(const Json& record) const {
  for (const auto& entry : m_Keys) {
    const std::string text = TextOf(record.value(entry->key, Json()));
    const auto matches = [&text](const std::string& pattern) { return MatchesWhole(text, pattern); };
    if (!entry->patterns.empty() && std::ranges::none_of(entry->patterns, matches)) return false;
  }
  const auto matches = [&record](const std::string& pattern) { return HasMatch(record, pattern); };
  return m_Anywhere.empty() || std::ranges::any_of(m_Anywhere, matches);
}

Json RecordFilter::Select(const Json& records) const {
  Json selected = Json::array();
  for (const Json& record : records) {
    if (Matches(record)) selected.push_back(record);
  }
  return selected;
}

void WarnUnreadable(Output& out, std::string_view what, const std::string& path) {
  if (::access(path.c_str(), R_OK) != 0 && (errno == EACCES || errno == EPERM)) out.Warn(what, path, "run as root");
}

void WarnWithoutSlots(Output& out) {
  WarnUnreadable(out, "slot numbers are missing", kSmbiosTable);
}

}  // namespace ravctl
