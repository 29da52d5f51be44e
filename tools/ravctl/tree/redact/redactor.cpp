#include "ravctl/tree/redact/redactor.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>

#include "ravctl/base/letter_case.h"
#include "ravctl/base/text.h"
#include "ravctl/tree/redact/forms.h"

namespace ravctl {

namespace {

constexpr size_t kShortestSerial = 5;
constexpr size_t kShortestHost = 2;
constexpr size_t kShortestIpV6 = 5;  // its digits: "fe80::1"
constexpr size_t kUuidDigits = 32;
constexpr size_t kMacDigits = 12;
constexpr size_t kIpV6Groups = 8;
constexpr size_t kLongestGap = 4;  // between the words of an identity: ", 0x"

bool IsDigit(char character) {
  return character >= '0' && character <= '9';
}

bool IsUpper(char character) {
  return character >= 'A' && character <= 'Z';
}

bool IsWord(char character) {
  return IsDigit(character) || (Lower(character) >= 'a' && Lower(character) <= 'z');
}

bool IsDecimal(std::string_view text) {
  return std::ranges::all_of(text, IsDigit);
}

bool HasDigit(std::string_view text) {
  return std::ranges::any_of(text, IsDigit);
}

// The character of a token where that one stood; isRaised: letters stand for digits in upper case, too.
char Cased(char token, char original, bool isRaised) {
  const bool isUpper = IsUpper(original) || (isRaised && IsDigit(original));
  return isUpper && token >= 'a' && token <= 'z' ? static_cast<char>(token - 'a' + 'A') : token;
}

std::string Digits(std::string_view spelling) {
  std::string digits = Lower(spelling);
  std::erase_if(digits, [](char character) { return !IsWord(character); });
  return digits;
}

bool IsHex(std::string_view text) {
  return text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

// All zeros or all ones: no address.
bool IsAllOne(std::string_view digits) {
  return digits.find_first_not_of(digits.front()) == std::string_view::npos &&
         (digits.front() == '0' || digits.front() == 'f');
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

// Words of a text by their limits.
struct Word {
  size_t start = 0;
  size_t end = 0;

  std::string_view In(std::string_view text) const { return text.substr(start, end - start); }
};

// The name of a multipath drive: its WWN with a 3 in front, for what it is (SPC-4, 7.8.6: the NAA designator).
bool IsMultipathName(std::string_view written) {
  return (written.size() == 17 || written.size() == 33) && written[0] == '3' && IsHex(Lower(written));
}

// The next word at or behind the place; empty at the end of the text. What marks hexadecimal digits ("0x"), the name of
// an interface made of its address ("enx") or that of a multipath drive is not part of it.
Word NextWord(std::string_view text, size_t at) {
  constexpr size_t kNameOfMac = 3 + kMacDigits;
  while (at < text.size() && !IsWord(text[at]))
    ++at;
  Word word{at, at};
  while (word.end < text.size() && IsWord(text[word.end]))
    ++word.end;
  const std::string_view written = word.In(text);
  if (written.size() > 2 && written[0] == '0' && Lower(written[1]) == 'x') word.start += 2;
  if (written.size() == kNameOfMac && Lower(written[2]) == 'x' && std::string_view("nlw").find(Lower(written[1])) < 3) {
    word.start += 3;
  }
  if (IsMultipathName(written)) ++word.start;
  return word;
}

// Numbers of an IPv4 address are told apart: "1.22" is not "12.2".
bool IsIpV4Gap(std::string_view text, const Word& word, const Word& next) {
  constexpr size_t kMost = 3;
  return next.start == word.end + 1 && text[word.end] == '.' && word.end - word.start <= kMost &&
         next.end - next.start <= kMost && IsDecimal(word.In(text)) && IsDecimal(next.In(text));
}

// Adds a word to an identity.
void Append(std::string& identity, std::string_view text, const Word& previous, const Word& word) {
  if (!identity.empty() && IsIpV4Gap(text, previous, word)) identity += '.';
  for (const char character : word.In(text))
    identity += Lower(character);
}

// Words that stand in texts of any machine.
constexpr auto kCommonWords = std::to_array<std::string_view>(
    {"admin",     "administrator", "boot",   "daemon", "data",    "default", "eth0",  "false",  "file",
     "files",     "home",          "host",   "http",   "https",   "linux",   "local", "lo",     "localdomain",
     "localhost", "log",           "mail",   "name",   "network", "nobody",  "none",  "norrow", "notset",
     "null",      "pelrix",        "ravctl", "ravd",   "root",    "server",  "ssh",   "swap",   "system",
     "true",      "unknown",       "user",   "www",    "yes"});

}  // namespace

std::string SwapUuid(std::string_view digits) {
  std::string swapped;
  for (const size_t at : {6UL, 4UL, 2UL, 0UL, 10UL, 8UL, 14UL, 12UL})
    swapped += digits.substr(at, 2);
  return swapped + std::string(digits.substr(16));
}

// ---- learning

void Redactor::Know(const std::string& identity, const std::string& token, std::string_view firstWord, size_t words) {
  m_Known.try_emplace(identity, token);
  for (const auto& [word, count] : {std::pair{Lower(firstWord), words}, std::pair{identity, size_t{1}}}) {
    size_t& most = m_Starts.try_emplace(word, 0).first->second;
    most = std::max(most, count);
  }
  m_Longest = std::max(m_Longest, identity.size());
}

void Redactor::KnowWords(std::string_view spelling) {
  std::string identity;
  std::string_view first;
  size_t words = 0;
  Word previous;
  for (Word word = NextWord(spelling, 0); word.start < word.end; word = NextWord(spelling, word.end)) {
    if (words++ == 0) first = word.In(spelling);
    Append(identity, spelling, previous, word);
    previous = word;
  }
  if (identity.size() >= kMacDigits && IsHex(identity)) return LearnHex(identity);
  if (!identity.empty()) Know(identity, m_Tokens.Of(TokenForm::kWord, identity), first, words);
}

void Redactor::KnowHex(const std::string& digits, const std::string& token) {
  // A UUID has one group more than its length tells.
  for (const size_t group : {2UL, 4UL, 6UL, 8UL})
    Know(digits, token, std::string_view(digits).substr(0, group), digits.size() / group + 1);
}

void Redactor::LearnHex(std::string_view digits) {
  const std::string lower = Digits(digits);
  if (lower.size() < kMacDigits || IsAllOne(lower)) return;
  const std::string& token = m_Tokens.Of(TokenForm::kHex, lower);
  KnowHex(lower, token);
  if (lower.size() == kUuidDigits) KnowHex(SwapUuid(lower), SwapUuid(token));
}

void Redactor::LearnIpV4(std::string_view address) {
  in_addr parsed{};
  const std::string text(address);
  // Addresses that name no machine.
  if (text.starts_with("127.") || text.starts_with("255.") || text == "0.0.0.0") return;
  if (::inet_pton(AF_INET, text.c_str(), &parsed) != 1) return;
  const std::string& token = m_Tokens.Of(TokenForm::kIpV4, text);
  Know(text, token, text.substr(0, text.find('.')), 4);
  in_addr other{};
  if (::inet_pton(AF_INET, token.c_str(), &other) != 1) return;
  std::string bytes(reinterpret_cast<const char*>(&parsed), sizeof parsed);
  std::string otherBytes(reinterpret_cast<const char*>(&other), sizeof other);
  for (int order = 0; order < 2; ++order) {
    // Decimal digits alone would be some number.
    if (const std::string digits = HexBytes(bytes); !IsDecimal(digits)) KnowHex(digits, HexBytes(otherBytes));
    std::ranges::reverse(bytes);
    std::ranges::reverse(otherBytes);
  }
}

// Every spelling of an address gets the digits of the one token that it has a place for.
void Redactor::LearnIpV6(std::string_view address) {
  if (const size_t dot = address.find('.'); dot != std::string_view::npos) {
    return LearnIpV4(address.substr(address.rfind(':', dot) + 1));
  }
  if (address.ends_with(':') && !address.ends_with("::")) address.remove_suffix(1);  // "... to fe80::1: refused"
  in6_addr parsed{};
  if (::inet_pton(AF_INET6, std::string(address).c_str(), &parsed) != 1) return;
  const std::string spelled = Digits(address);
  const std::vector<std::string> groups = SplitList(address, ':');
  // "::Add" is a name of C++, not an address.
  if (spelled.size() < kShortestIpV6 || (!HasDigit(spelled) && groups.size() < 2)) return;
  const std::string digits = HexBytes({reinterpret_cast<const char*>(&parsed), sizeof parsed});
  const std::string& token = m_Tokens.Of(TokenForm::kIpV6, digits);
  KnowHex(digits, token);
  const size_t gap = address.find("::");
  const size_t before = gap == std::string_view::npos ? groups.size() : SplitList(address.substr(0, gap), ':').size();
  std::string spelledToken;
  for (size_t at = 0; at < groups.size(); ++at) {
    const size_t group = at < before ? at : kIpV6Groups - groups.size() + at;
    spelledToken += token.substr(4 * group + 4 - groups[at].size(), groups[at].size());
  }
  Know(spelled, spelledToken, groups.front(), groups.size());
}

void Redactor::LearnSerial(std::string_view serial) {
  const auto isSerial = [](std::string_view text) {
    return Digits(text).size() >= kShortestSerial && HasDigit(text) && !IsPlaceholder(text);
  };
  if (!isSerial(serial)) return;
  KnowWords(serial);
  std::string token(serial);
  Text(token);
  KnowHex(HexBytes(serial), HexBytes(token));
  for (const std::string& part : SplitList(serial, ' ')) {
    if (isSerial(part)) KnowWords(part);
  }
}

bool Redactor::IsCommon(std::string_view word) const {
  const std::string lower = Lower(word);
  return std::ranges::find(kCommonWords, lower) != kCommonWords.end() || m_Protected.contains(lower);
}

void Redactor::LearnHost(std::string_view name) {
  const size_t dot = name.find('.');
  const std::string_view label = name.substr(0, dot);
  if (name.find_first_not_of("0123456789.") == std::string_view::npos && dot != std::string_view::npos) return;
  if (label.size() >= kShortestHost && !IsCommon(label)) KnowWords(label);
  if (dot == std::string_view::npos) return;
  const std::string_view domain = name.substr(dot + 1);
  if (domain.size() > kShortestHost && !IsCommon(domain)) KnowWords(domain);
}

void Redactor::LearnName(std::string_view name) {
  const bool hasLetter =
      std::ranges::any_of(name, [](char character) { return IsWord(character) && !IsDigit(character); });
  if (hasLetter && !name.starts_with('/') && !IsCommon(name)) KnowWords(name);
}

// "ata-MODEL_SER12345-part1" and "scsi-3600..." => the part that is the device's own.
void Redactor::LearnDevice(std::string_view name) {
  const size_t part = name.rfind("-part");
  name = name.substr(0, part);
  const size_t mark = name.rfind('_');
  KnowWords(name);
  LearnSerial(name.substr(mark == std::string_view::npos ? name.find('-') + 1 : mark + 1));
}

void Redactor::Protect(std::string_view path) {
  for (Word word = NextWord(path, 0); word.start < word.end; word = NextWord(path, word.end)) {
    if (!HasDigit(word.In(path))) m_Protected.insert(Lower(word.In(path)));
  }
}

void Redactor::Learn(std::string_view text) {
  ForEachForm(text, [this, text](Form form, std::string_view found) {
    const auto start = static_cast<size_t>(found.data() - text.data());
    const size_t end = start + found.size();
    const char before = start > 0 ? text[start - 1] : '\0';
    const char behind = end < text.size() ? text[end] : '\0';
    switch (form) {
      case Form::kUuid:
      case Form::kAddress:
        return LearnHex(found);
      case Form::kBareMac:
        if (HasDigit(found) && !IsDecimal(found)) LearnHex(found);
        return;
      case Form::kIpV4:
        if (before != '.' && !(behind == '.' && end + 1 < text.size() && IsDigit(text[end + 1]))) LearnIpV4(found);
        return;
      case Form::kIpV6:
        if (!IsWord(before) && before != ':' && !IsWord(behind)) LearnIpV6(found);
        return;
      case Form::kSerial:
        return LearnSerial(found);
      case Form::kDevice:
        return LearnDevice(found);
      case Form::kHost:
        if (!IsDecimal(found)) LearnHost(found);
        return;
      case Form::kName:
        return LearnName(found);
    }
  });
}

// ---- replacing

struct Redactor::Match {
  const std::string* token = nullptr;  // null: no identity begins here
  std::vector<Word> words = {};
  size_t end = 0;  // where to go on
};

// The longest identity that begins with the next word.
Redactor::Match Redactor::MatchAt(std::string_view text, size_t at, bool keepsNumbers) const {
  Word word = NextWord(text, at);
  Match match{.end = word.end};
  if (word.end - word.start > m_Longest) return match;
  std::string identity;
  Append(identity, text, word, word);
  const auto start = m_Starts.find(identity);
  if (start == m_Starts.end()) return match;
  size_t matched = 0;
  while (true) {
    match.words.push_back(word);
    const auto known = m_Known.find(identity);
    if (known != m_Known.end() && !(keepsNumbers && IsDecimal(identity))) {
      match.token = &known->second;
      match.end = word.end;
      matched = match.words.size();
    }
    if (match.words.size() == start->second) break;
    const Word next = NextWord(text, word.end);
    const std::string_view gap = text.substr(word.end, next.start - word.end);
    if (next.start == next.end || gap.size() > kLongestGap || gap.find('\n') != std::string_view::npos) break;
    Append(identity, text, word, next);
    if (identity.size() > m_Longest) break;
    word = next;
  }
  match.words.resize(matched);
  return match;
}

void Redactor::Text(std::string& text, bool keepsNumbers) const {
  for (size_t at = 0; at < text.size();) {
    const Match match = MatchAt(text, at, keepsNumbers);
    at = std::max(match.end, at + 1);
    if (match.token == nullptr) continue;
    const bool isRaised = std::ranges::any_of(
        match.words, [&text](const Word& word) { return std::ranges::any_of(word.In(text), IsUpper); });
    auto next = match.token->begin();
    for (const Word& word : match.words) {
      for (size_t place = word.start; place < word.end; ++place, ++next) {
        if (!IsWord(*next)) ++next;
        text[place] = Cased(*next, text[place], isRaised);
      }
    }
  }
}

void Redactor::Bytes(std::string& bytes) const {
  Text(bytes);
  for (size_t first = 0; first < 2; ++first) {
    std::string half;
    for (size_t at = first; at < bytes.size(); at += 2)
      half += bytes[at];
    Text(half);
    for (size_t at = first; at < bytes.size(); at += 2)
      bytes[at] = half[at / 2];
  }
}

std::string Redactor::Name(std::string_view name) {
  std::string text(name);
  const std::string& token = m_Tokens.Of(TokenForm::kWord, Lower(name));
  for (size_t at = 0; at < text.size(); ++at)
    text[at] = Cased(token[at], text[at], false);
  return text;
}

std::string Redactor::Serial(std::string_view serial) {
  std::string text(serial);
  if (IsPlaceholder(serial)) return text;
  Text(text);
  return text == serial ? Name(serial) : text;
}

std::string Redactor::Uuid(std::string_view digits) {
  return m_Tokens.Of(TokenForm::kHex, std::string(digits));
}

}  // namespace ravctl
