// What the commands of smbios share.

#include "ravctl/commands/smbios/group.h"

#include <algorithm>
#include <charconv>

#include "ravctl/answer/json.h"
#include "ravctl/base/text.h"
#include "ravctl/hardware/smbios_names.h"
#include "ravctl/line/record_filter.h"

namespace ravctl {

namespace {

bool Contains(const std::vector<unsigned int>& list, unsigned int value) {
  return std::ranges::find(list, value) != list.end();
}

bool ParseNumber(std::string_view text, int base, unsigned int limit, unsigned int& value) {
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value, base);
  return result.ec == std::errc() && result.ptr == text.data() + text.size() && value <= limit;
}

[[noreturn]] void Refuse(const std::string& word, const std::vector<std::string>& names = {}) {
  throw CommandError(ExitCode::kUsage, "no handle, type or name of a type", word,
                     DidYouMean(word, names, "a handle is 0x0011, a type 17"));
}

}  // namespace

SmbiosChoice::SmbiosChoice(const std::vector<std::string>& words) {
  for (const std::string& word : words)
    Add(word);
}

bool SmbiosChoice::Has(const SmbiosStructure& structure) const {
  const bool isAll = m_Handles.empty() && m_Types.empty();
  return isAll || Contains(m_Handles, structure.handle) || Contains(m_Types, structure.type);
}

void SmbiosChoice::Add(const std::string& word) {
  unsigned int value = 0;
  if (word.starts_with("0x") || word.starts_with("0X")) {
    if (!ParseNumber(std::string_view(word).substr(2), 16, 0xFFFF, value)) Refuse(word);
    m_Handles.push_back(value);
  } else if (word.find_first_not_of("0123456789") == std::string::npos) {
    if (!ParseNumber(word, 10, 0xFF, value)) Refuse(word);
    m_Types.push_back(value);
  } else {
    AddByName(word);
  }
}

void SmbiosChoice::AddByName(const std::string& word) {
  const size_t before = m_Types.size();
  for (unsigned int type = 0; type <= 0xFF; ++type) {
    const std::string name = SmbiosTypeName(static_cast<uint8_t>(type));
    if (name != "Unknown" && MatchesPart(name, word)) m_Types.push_back(type);
  }
  if (m_Types.size() == before) Refuse(word, SmbiosTypeNames());
}

void AddSmbiosChoice(Command& command, std::vector<std::string>& words) {
  command.AddWord("WHICH", &words, "Handles (0x0011), types (17) or names of types ('memory dev'); all without");
}

std::string UpperHexText(std::span<const unsigned char> bytes) {
  return HexBytes({reinterpret_cast<const char*>(bytes.data()), bytes.size()}, "", kUpperHex);
}

Json SmbiosHeaderRow(const SmbiosStructure& structure) {
  return {{"handle", SmbiosHandleText(structure.handle)},
          {"type", structure.type},
          {"name", SmbiosTypeName(structure.type)},
          {"length", structure.length}};
}

ExitCode FinishSmbios(const SmbiosImage& image, bool isFound, Output& out, const std::function<void()>& print) {
  if (image.IsDamaged()) {
    out.Warn("the SMBIOS table is damaged", image.error, "what could be read is shown; see ravctl smbios verify");
  }
  print();
  if (image.IsDamaged()) return ExitCode::kInputDamaged;
  return isFound ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace ravctl
