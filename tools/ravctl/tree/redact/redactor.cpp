#include "ravctl/tree/redact/redactor.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include "ravctl/base/text.h"

namespace ravctl {

namespace {

constexpr size_t kShortestSerial = 5;
constexpr size_t kShortestHost = 2;
constexpr size_t kUuidDigits = 32;
constexpr size_t kMacBytes = 6;

char Lower(char character) {
  return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

std::string Lower(std::string_view text) {
  std::string lower(text);
  for (char& character : lower)
    character = Lower(character);
  return lower;
}

bool IsDigit(char character) {
  return character >= '0' && character <= '9';
}

bool IsHex(char character) {
  return IsDigit(character) || (Lower(character) >= 'a' && Lower(character) <= 'f');
}

bool IsWord(char character) {
  return IsDigit(character) || (Lower(character) >= 'a' && Lower(character) <= 'z');
}

char At(std::string_view text, size_t at) {
  return at < text.size() ? text[at] : '\0';
}

char Before(std::string_view text, size_t at) {
  return at > 0 ? text[at - 1] : '\0';
}

size_t HexRun(std::string_view text, size_t at) {
  size_t length = 0;
  while (IsHex(At(text, at + length)))
    ++length;
  return length;
}

bool IsAllOne(std::string_view digits) {
  return digits.find_first_not_of(digits.front()) == std::string_view::npos &&
         (digits.front() == '0' || digits.front() == 'f');
}

bool HasDigit(std::string_view text) {
  return std::ranges::any_of(text, IsDigit);
}

// What firmware holds where nobody wrote a number.
bool IsPlaceholder(std::string_view serial) {
  const std::string lower = Lower(serial);
  for (const char* phrase : {"not ", "none", "default", "to be filled", "o.e.m", "unknown", "serial", "asset", "n/a",
                             "unspecified", "no dimm", "empty"}) {
    if (lower.find(phrase) != std::string::npos) return true;
  }
  return lower.find_first_not_of(" 0.-_x") == std::string::npos;
}

std::string WithSeparator(std::string_view digits, char separator) {
  std::string text;
  for (size_t at = 0; at < digits.size(); at += 2) {
    if (at > 0) text += separator;
    text += digits.substr(at, 2);
  }
  return text;
}

std::string WithDashes(std::string_view digits) {
  std::string text(digits);
  for (const size_t place : {20UL, 16UL, 12UL, 8UL})
    text.insert(place, 1, '-');
  return text;
}

// Writes a token of lower-case letters over what stands there, in upper case where that has it.
void Overwrite(std::string& text, size_t at, size_t length, std::string_view token) {
  const bool isUpper =
      std::any_of(text.begin() + static_cast<ptrdiff_t>(at), text.begin() + static_cast<ptrdiff_t>(at + length),
                  [](char character) { return character >= 'A' && character <= 'F'; });
  for (size_t place = 0; place < length; ++place) {
    const char character = token[place];
    const bool isRaised = isUpper && character >= 'a' && character <= 'f';
    text[at + place] = isRaised ? static_cast<char>(character - 'a' + 'A') : character;
  }
}

// "00:11:22:33:44:55" => 17; 0 when no six or more pairs with one separator stand there.
size_t PairsLength(std::string_view text, size_t at) {
  const char separator = At(text, at + 2);
  if (separator != ':' && separator != '-') return 0;
  size_t pairs = 0;
  while (HexRun(text, at + 3 * pairs) == 2) {
    ++pairs;
    if (At(text, at + 3 * pairs - 1) != separator) break;
  }
  const size_t end = at + 3 * pairs - 1;
  const bool isWhole =
      pairs >= kMacBytes && !IsWord(At(text, end)) && !(At(text, end) == separator && IsHex(At(text, end + 1)));
  return isWhole ? end - at : 0;
}

size_t UuidLength(std::string_view text, size_t at) {
  size_t end = at;
  for (const size_t group : {8UL, 4UL, 4UL, 4UL, 12UL}) {
    if (end != at && At(text, end++) != '-') return 0;
    if (HexRun(text, end) != group) return 0;
    end += group;
  }
  return IsWord(At(text, end)) ? 0 : end - at;
}

size_t IpV4Length(std::string_view text, size_t at) {
  size_t end = at;
  for (int number = 0; number < 4; ++number) {
    if (number > 0 && At(text, end++) != '.') return 0;
    size_t digits = 0;
    unsigned int value = 0;
    for (; digits < 4 && IsDigit(At(text, end)); ++digits)
      value = value * 10 + static_cast<unsigned int>(text[end++] - '0');
    if (digits == 0 || digits > 3 || value > 255) return 0;
  }
  const bool goesOn = IsWord(At(text, end)) || (At(text, end) == '.' && IsDigit(At(text, end + 1)));
  return goesOn ? 0 : end - at;
}

// Addresses that name no machine.
bool IsCommonIpV4(std::string_view address) {
  return address.starts_with("127.") || address.starts_with("255.") || address == "0.0.0.0";
}

size_t IpV6Length(std::string_view text, size_t at) {
  size_t end = at;
  while (IsHex(At(text, end)) || At(text, end) == ':' || At(text, end) == '.')
    ++end;
  while (end > at && (text[end - 1] == '.' || (text[end - 1] == ':' && Before(text, end - 1) != ':')))
    --end;
  const std::string address(text.substr(at, end - at));
  if (address.size() < 3 || address.size() > INET6_ADDRSTRLEN || std::ranges::count(address, ':') < 2) return 0;
  in6_addr parsed{};
  if (!HasDigit(address) || ::inet_pton(AF_INET6, address.c_str(), &parsed) != 1) return 0;
  return IsWord(At(text, end)) || address == "::1" ? 0 : end - at;
}

// "0x5001438012345678", "naa.600508b1001c..." and "eui...." => place of the digits; npos for none. The first digit of a
// WWN is 1, 2, 5 or 6, which no address in a process has in front of 15 more.
size_t WwnPlace(std::string_view text, size_t at) {
  const std::string prefix = Lower(text.substr(at, 4));
  const bool isNamed = prefix == "naa." || prefix == "eui.";
  if (!isNamed && !prefix.starts_with("0x")) return std::string_view::npos;
  const size_t digits = at + (isNamed ? 4 : 2);
  const size_t length = HexRun(text, digits);
  if (length != 16 && length != 32) return std::string_view::npos;
  const bool isKind = std::string_view("1256").find(text[digits]) != std::string_view::npos;
  return isNamed || isKind ? digits : std::string_view::npos;
}

// "UUID=", "by-id/" and the like: what follows up to a blank is an identifier.
size_t IdentifierPlace(std::string_view text, size_t at) {
  constexpr std::string_view kMarks[] = {"uuid=", "partuuid=", "by-id/", "by-uuid/", "by-partuuid/"};
  for (const std::string_view mark : kMarks) {
    if (Lower(text.substr(at, mark.size())) == mark) return at + mark.size();
  }
  return std::string_view::npos;
}

// Behind a word that tells what follows: the separator, blanks and quotes. npos for none.
size_t ValuePlace(std::string_view text, size_t at) {
  constexpr size_t kLongestRest = 24;  // of the key: "serial" of "serial number (chassis)"
  const size_t end = std::min(text.size(), at + kLongestRest);
  while (at < end && (IsWord(text[at]) || std::string_view(" _-.#()").find(text[at]) != std::string_view::npos))
    ++at;
  if (At(text, at) != '=' && At(text, at) != ':') return std::string_view::npos;
  ++at;
  while (At(text, at) == ' ' || At(text, at) == '"' || At(text, at) == '\'')
    ++at;
  return at;
}

size_t WordEnd(std::string_view text, size_t at) {
  size_t end = at;
  while (IsWord(At(text, end)) || (end > at && std::string_view("._-/").find(At(text, end)) != std::string_view::npos))
    ++end;
  while (end > at && !IsWord(text[end - 1]))
    --end;
  return end;
}

// The text of a registry value ("s=PN 0031X77"), which has the rest of the line; else a word, with the next ones where
// it is too short to be a serial number by itself.
std::string_view ValueAt(std::string_view text, size_t at) {
  for (const std::string_view type : {"s=", "es="}) {
    if (!text.substr(at).starts_with(type)) continue;
    at += type.size();
    return text.substr(at, text.find_first_of("\r\n", at) - at);
  }
  size_t end = WordEnd(text, at);
  while (end > at && end - at < kShortestSerial && At(text, end) == ' ' && WordEnd(text, end + 1) > end + 1)
    end = WordEnd(text, end + 1);
  return text.substr(at, end - at);
}

}  // namespace

std::string SwapUuid(std::string_view digits) {
  std::string swapped;
  for (const size_t at : {6UL, 4UL, 2UL, 0UL, 10UL, 8UL, 14UL, 12UL})
    swapped += digits.substr(at, 2);
  return swapped + std::string(digits.substr(16));
}

void Redactor::AddNeedle(std::string_view spelling, std::string token, bool isHex, bool isHost) {
  std::string lower = Lower(spelling);
  if (lower.size() < 2 || !m_Known.insert(lower).second) return;
  const auto start =
      static_cast<uint16_t>(static_cast<unsigned char>(lower[0]) << 8 | static_cast<unsigned char>(lower[1]));
  m_Starts.set(start);
  m_NeedlesByStart[start].push_back(m_Needles.size());
  m_Needles.push_back({std::move(lower), std::move(token), isHex, isHost});
}

void Redactor::AddHexSpellings(std::string_view digits, const std::string& token) {
  AddNeedle(digits, token, true);
  for (const char separator : {':', '-', ' '})
    AddNeedle(WithSeparator(digits, separator), WithSeparator(token, separator), true);
}

void Redactor::LearnSerial(std::string_view serial) {
  while (serial.ends_with(' '))
    serial.remove_suffix(1);
  while (serial.starts_with(' '))
    serial.remove_prefix(1);
  if (serial.size() < kShortestSerial || !HasDigit(serial) || IsPlaceholder(serial)) return;
  const std::string token = m_Tokens.Name(serial);
  AddNeedle(serial, token, false);
  AddNeedle(HexBytes(serial, " "), HexBytes(token, " "), true);
}

void Redactor::LearnHost(std::string_view name) {
  const std::string_view label = name.substr(0, name.find('.'));
  // The names of the product itself stand in every file.
  constexpr std::string_view kNoHosts[] = {"localhost", "ravd", "ravctl", "pelrix", "norrow", "none"};
  if (label.size() < kShortestHost || std::ranges::find(kNoHosts, Lower(label)) != std::end(kNoHosts)) return;
  if (label.find_first_not_of("0123456789.") == std::string_view::npos) return;
  AddNeedle(label, m_Tokens.Name(Lower(label)), false, true);
}

void Redactor::LearnAddress(std::span<const unsigned char> bytes) {
  const std::string digits = HexBytes({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  if (bytes.size() < kMacBytes || IsAllOne(digits)) return;
  AddHexSpellings(digits, m_Tokens.Hex(digits));
}

void Redactor::LearnUuid(std::string_view digits) {
  if (digits.size() != kUuidDigits || IsAllOne(digits)) return;
  const std::string token = m_Tokens.Uuid(digits);
  AddHexSpellings(digits, token);
  AddNeedle(WithDashes(digits), WithDashes(token), true);
  AddHexSpellings(SwapUuid(digits), SwapUuid(token));
}

void Redactor::LearnFromText(std::string_view text) {
  struct Key {
    std::string_view word;
    bool isHost;
  };
  constexpr Key kKeys[] = {{"serial", false},    {"servicetag", false},  {"service tag", false}, {"assettag", false},
                           {"asset tag", false}, {"sn:", false},         {"hostname", true},     {"host name", true},
                           {"nodename", true},   {"computername", true}, {"fqdn", true}};
  const std::string lower = Lower(text);
  for (const Key& key : kKeys) {
    for (size_t at = lower.find(key.word); at != std::string::npos; at = lower.find(key.word, at + 1)) {
      const size_t rest = at + key.word.size() - (key.word.ends_with(':') ? 1 : 0);
      const size_t place = ValuePlace(text, rest);
      if (place == std::string_view::npos) continue;
      const std::string_view value = ValueAt(text, place);
      if (key.isHost) {
        LearnHost(value);
      } else {
        LearnSerial(value);
      }
    }
  }
}

std::string Redactor::Serial(std::string_view serial) {
  return serial.empty() || IsPlaceholder(serial) ? std::string(serial) : m_Tokens.Name(serial);
}

void Redactor::Text(std::string& text) {
  ReplaceForms(text);
  ReplaceLearned(text);
}

void Redactor::ReplaceLearned(std::string& text) {
  for (size_t at = 0; at + 1 < text.size();) {
    const auto start = static_cast<uint16_t>(static_cast<unsigned char>(Lower(text[at])) << 8 |
                                             static_cast<unsigned char>(Lower(text[at + 1])));
    const size_t replaced = m_Starts.test(start) ? ReplaceLearnedAt(text, at) : 0;
    at += std::max<size_t>(replaced, 1);
  }
}

size_t Redactor::ReplaceLearnedAt(std::string& text, size_t at) {
  const auto start = static_cast<uint16_t>(static_cast<unsigned char>(Lower(text[at])) << 8 |
                                           static_cast<unsigned char>(Lower(text[at + 1])));
  for (const size_t index : m_NeedlesByStart.at(start)) {
    const Needle& needle = m_Needles[index];
    const size_t length = needle.lower.size();
    if (Lower(std::string_view(text).substr(at, length)) != needle.lower) continue;
    const auto isLimit = [&needle](char character) { return !(needle.isHex ? IsHex(character) : IsWord(character)); };
    if (!isLimit(Before(text, at)) || !isLimit(At(text, at + length))) continue;
    if (needle.isHex) {
      Overwrite(text, at, length, needle.token);
    } else {
      text.replace(at, length, needle.token);
    }
    return needle.isHost ? length + ReplaceDomain(text, at + length) : length;
  }
  return 0;
}

// ".example.com" behind a host's name; the length of what was replaced.
size_t Redactor::ReplaceDomain(std::string& text, size_t at) {
  size_t end = at;
  while (At(text, end) == '.' && IsWord(At(text, end + 1))) {
    for (++end; IsWord(At(text, end)) || At(text, end) == '-';)
      ++end;
  }
  text.replace(at, end - at, m_Tokens.Name(Lower(std::string_view(text).substr(at, end - at))));
  return end - at;
}

void Redactor::ReplaceForms(std::string& text) {
  for (size_t at = 0; at < text.size();) {
    const char character = text[at];
    const bool isStart = IsHex(character) || std::string_view(":nNpPuU").find(character) != std::string_view::npos;
    // A form begins where no word goes on.
    const size_t replaced = isStart && !IsWord(Before(text, at)) ? ReplaceFormAt(text, at) : 0;
    if (replaced > 0) {
      at += replaced;
    } else {
      ++at;
    }
  }
}

// The length of what was replaced, 0 for nothing.
size_t Redactor::ReplaceFormAt(std::string& text, size_t at) {
  const std::string_view view = text;
  if (const size_t length = UuidLength(view, at); length > 0) {
    std::string digits = Lower(view.substr(at, length));
    std::erase(digits, '-');
    if (!IsAllOne(digits)) Overwrite(text, at, length, WithDashes(m_Tokens.Uuid(digits)));
    return length;
  }
  if (const size_t length = PairsLength(view, at); length > 0) {
    const char separator = text[at + 2];
    std::string digits = Lower(view.substr(at, length));
    std::erase(digits, separator);
    if (!IsAllOne(digits)) Overwrite(text, at, length, WithSeparator(m_Tokens.Hex(digits), separator));
    return length;
  }
  if (const size_t length = IpV4Length(view, at); length > 0 && Before(view, at) != '.') {
    const std::string address(view.substr(at, length));
    if (!IsCommonIpV4(address)) text.replace(at, length, m_Tokens.IpV4(address));
    return length;
  }
  if (const size_t length = IpV6Length(view, at); length > 0) {
    Overwrite(text, at, length, m_Tokens.IpV6(Lower(view.substr(at, length))));
    return length;
  }
  if (const size_t place = WwnPlace(view, at); place != std::string_view::npos) {
    const size_t length = HexRun(view, place);
    const std::string digits = Lower(view.substr(place, length));
    if (!IsAllOne(digits)) Overwrite(text, place, length, m_Tokens.Hex(digits));
    return place + length - at;
  }
  const size_t place = IdentifierPlace(view, at);
  if (place == std::string_view::npos) return 0;
  if (UuidLength(view, place) > 0) return place - at;
  const size_t end = std::min(view.find_first_of(" \t\n\"',", place), view.size());
  text.replace(place, end - place, m_Tokens.Name(view.substr(place, end - place)));
  return end - at;
}

}  // namespace ravctl
