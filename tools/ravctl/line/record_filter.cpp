#include "ravctl/line/record_filter.h"

#include <fnmatch.h>

#include <algorithm>

#include "ravctl/answer/json.h"

namespace ravctl {

namespace {

std::string TextOf(const Json& value) {
  return value.is_string() ? value.get<std::string>() : value.is_null() ? "" : value.dump();
}

bool HasMatch(const Json& value, const std::string& pattern) {
  if (!value.is_structured()) return !value.is_boolean() && MatchesPart(TextOf(value), pattern);
  return std::any_of(value.begin(), value.end(), [&pattern](const Json& part) { return HasMatch(part, pattern); });
}

}  // namespace

bool MatchesWhole(std::string_view text, const std::string& pattern) {
  return ::fnmatch(pattern.c_str(), std::string(text).c_str(), FNM_CASEFOLD) == 0;
}

bool MatchesPart(std::string_view text, const std::string& pattern) {
  const bool isPattern = pattern.find_first_of("*?[") != std::string::npos;
  return MatchesWhole(text, isPattern ? pattern : "*" + pattern + "*");
}

void RecordFilter::AddOption(Command& command, const std::string& option, const std::string& key,
                             const std::string& help) {
  KeyPatterns& entry = *m_Keys.emplace_back(std::make_unique<KeyPatterns>(KeyPatterns{key, {}}));
  command.AddOption(option, &entry.patterns, "PATTERN", help).offered = command.FullName() + " -o " + key;
}

void RecordFilter::AddMatchOption(Command& command) {
  command.AddOption("-m,--match", &m_Anywhere, "PATTERN",
                    "Only records with this text, or matched by this pattern, in any field");
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

}  // namespace ravctl
