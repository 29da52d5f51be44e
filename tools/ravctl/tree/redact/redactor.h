#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "ravctl/tree/redact/tokens.h"

namespace ravctl {

// The 32 digits of a UUID with the bytes of its first three fields turned round, as SMBIOS stores them and back.
std::string SwapUuid(std::string_view digits);

// Knows the identities of a machine and replaces them in texts by tokens of the same length, so that offsets, columns
// and line lengths stay.
//
// A text is a row of words: letters and digits. An identity is one word or several ("ZX81-99001", "a0:36:9f:12:34:56"),
// and is known whatever stands between them, up to four characters, and without anything between them; a MAC address,
// WWN or UUID also in pairs and in groups of four or eight digits. So each word is looked up once, and only what an
// identity begins with is looked at more closely; both passes take time in proportion to the text.
//
// Everything is learned before the first text is replaced. One thread.
class Redactor {
 public:
  // Learns what has the form of an identity in the text, or stands where one stands (see forms.h).
  void Learn(std::string_view text);
  // The words of a path that says where something is, such as "sys/block": no chosen name that is one of them is
  // learned.
  void Protect(std::string_view path);
  // What stands for no number ("None", "To be filled by O.E.M.") or has no digit is not learned, nor what is too short.
  void LearnSerial(std::string_view serial);
  void LearnHost(std::string_view name);
  // Digits of an address, with separators or without; those of a UUID also as SMBIOS stores them.
  void LearnHex(std::string_view digits);

  // Replaces in place; the length stays. keepsNumbers: what consists of decimal digits alone is none, in a file where
  // such numbers mean something else.
  void Text(std::string& text, bool keepsNumbers = false) const;
  // The same for bytes: texts with one or two bytes a character.
  void Bytes(std::string& bytes) const;

  // Tokens of what is an identity because of its place, whatever it looks like; placeholders stay.
  std::string Serial(std::string_view serial);
  std::string Name(std::string_view name);
  std::string Uuid(std::string_view digits);

 private:
  struct Hash : std::hash<std::string_view> {
    using is_transparent = void;
  };
  struct Match;

  void LearnName(std::string_view name);
  void LearnDevice(std::string_view name);
  void LearnIpV4(std::string_view address);
  void LearnIpV6(std::string_view address);
  void KnowWords(std::string_view spelling);
  void KnowHex(const std::string& digits, const std::string& token);
  void Know(const std::string& identity, const std::string& token, std::string_view firstWord, size_t words);
  bool IsCommon(std::string_view word) const;
  Match MatchAt(std::string_view text, size_t at, bool keepsNumbers) const;

  Tokens m_Tokens;
  std::unordered_map<std::string, std::string, Hash, std::equal_to<>>
      m_Known;                                                              // the words without what is between them
  std::unordered_map<std::string, size_t, Hash, std::equal_to<>> m_Starts;  // first words, and how many at most
  std::unordered_set<std::string, Hash, std::equal_to<>> m_Protected;
  size_t m_Longest = 0;
};

}  // namespace ravctl
