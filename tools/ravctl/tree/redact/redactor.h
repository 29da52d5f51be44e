#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ravctl/tree/redact/tokens.h"

namespace ravctl {

// The 32 digits of a UUID with the bytes of its first three fields turned round, as SMBIOS stores them and back.
std::string SwapUuid(std::string_view digits);

// Replaces secrets in texts by tokens of the same length, so that offsets, columns and line lengths stay.
//
// Two ways lead to a secret: its form (MAC and IP addresses, UUIDs, WWNs, file system identifiers), which Text knows
// everywhere; and its place (a serial number in a table, the name of the host), from which it is learned and then known
// everywhere, in every spelling: with colons, dashes or nothing between hexadecimal digits, in lower and upper case,
// and as the list of bytes of a registry value. So everything is learned before the first text is replaced. One thread.
class Redactor {
 public:
  // What stands for no number ("None", "To be filled by O.E.M.") and what is too short to be told from other words is
  // not learned; neither are addresses of zeros or ones.
  void LearnSerial(std::string_view serial);
  void LearnHost(std::string_view name);
  // MAC address, WWN or other address.
  void LearnAddress(std::span<const unsigned char> bytes);
  // 32 digits in lower case, as they are written. The bytes as SMBIOS stores them are known too.
  void LearnUuid(std::string_view digits);
  // From the places in a text that say what follows: "SerialNumber=s=...", "Hostname: ...".
  void LearnFromText(std::string_view text);

  // Replaces in place; the length stays.
  void Text(std::string& text);

  // The token of a serial number, whatever it looks like; placeholders stay.
  std::string Serial(std::string_view serial);
  Tokens& AllTokens() { return m_Tokens; }

 private:
  struct Needle {
    std::string lower;
    std::string token;
    bool isHex = false;  // of hexadecimal digits, with other hexadecimal digits as its limits; else of a word
    bool isHost = false;
  };

  void AddNeedle(std::string_view spelling, std::string token, bool isHex, bool isHost = false);
  void AddHexSpellings(std::string_view digits, const std::string& token);
  void ReplaceLearned(std::string& text);
  size_t ReplaceLearnedAt(std::string& text, size_t at);
  size_t ReplaceDomain(std::string& text, size_t at);
  void ReplaceForms(std::string& text);
  size_t ReplaceFormAt(std::string& text, size_t at);

  Tokens m_Tokens;
  std::vector<Needle> m_Needles;
  std::set<std::string, std::less<>> m_Known;
  std::bitset<65536> m_Starts;  // by the first two characters in lower case
  std::unordered_map<uint16_t, std::vector<size_t>> m_NeedlesByStart;
};

}  // namespace ravctl
