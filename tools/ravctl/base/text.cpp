#include "ravctl/base/text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <utility>

namespace ravctl {

namespace {

unsigned char Byte(std::string_view text, size_t at) {
  return static_cast<unsigned char>(text[at]);
}

// Length of the UTF-8 sequence at that place, 0 when there is none.
size_t SequenceLength(std::string_view text, size_t at) {
  const unsigned char first = Byte(text, at);
  if (first < 0x80) return 1;
  const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || length > text.size() - at) return 0;
  for (size_t next = 1; next < length; ++next) {
    if ((Byte(text, at + next) & 0xC0) != 0x80) return 0;
  }
  const unsigned char second = Byte(text, at + 1);
  const bool isOverlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
  const bool isSurrogate = first == 0xED && second > 0x9F;
  const bool isTooLarge = first == 0xF4 && second > 0x8F;
  return isOverlong || isSurrogate || isTooLarge ? 0 : length;
}

bool IsControl(std::string_view text, size_t at, size_t length) {
  const unsigned char first = Byte(text, at);
  return first < 0x20 || first == 0x7F || (length == 2 && first == 0xC2 && Byte(text, at + 1) < 0xA0);
}

void AppendHex(std::string& out, std::string_view bytes) {
  out += "\\x" + HexBytes(bytes, "\\x");
}

void AppendSafe(std::string& out, std::string_view text, bool keepControls) {
  size_t kept = 0;  // where the text that is not yet appended begins
  for (size_t at = 0; at < text.size();) {
    const size_t length = SequenceLength(text, at);
    if (length != 0 && (keepControls || !IsControl(text, at, length))) {
      at += length;
      continue;
    }
    out += text.substr(kept, at - kept);
    const size_t shown = std::max<size_t>(length, 1);
    AppendHex(out, text.substr(at, shown));
    at += shown;
    kept = at;
  }
  out += text.substr(kept);
}

}  // namespace

bool IsPrintable(std::string_view text) {
  // Eight bytes at a time: a byte below the blank borrows, DEL carries and a byte above has the high bit itself. What
  // spills into the neighbours does so only where a byte is found already.
  constexpr uint64_t kOnes = 0x0101010101010101;
  uint64_t found = 0;
  size_t at = 0;
  for (; at + sizeof(uint64_t) <= text.size(); at += sizeof(uint64_t)) {
    uint64_t bytes;
    std::memcpy(&bytes, text.data() + at, sizeof bytes);
    found |= (bytes - kOnes * 0x20) | (bytes + kOnes) | bytes;
  }
  for (; at < text.size(); ++at)
    found |= text[at] < 0x20 || text[at] == 0x7F ? 0x80U : 0U;
  return (found & (kOnes * 0x80)) == 0;
}

void AppendPrintable(std::string& out, std::string_view text) {
  if (IsPrintable(text)) {
    out += text;
  } else {
    AppendSafe(out, text, false);
  }
}

std::string Printable(std::string_view text) {
  std::string out;
  AppendPrintable(out, text);
  return out;
}

std::string ValidUtf8(std::string_view text) {
  std::string out;
  AppendSafe(out, text, true);
  return out;
}

void AppendJsonString(std::string& out, std::string_view text) {
  const std::string safe = IsPrintable(text) ? std::string() : ValidUtf8(text);
  std::string_view rest = safe.empty() ? text : std::string_view(safe);
  out += '"';
  const auto isSpecial = [](char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7F || character == '"' || character == '\\';
  };
  for (auto at = rest.begin(); (at = std::ranges::find_if(rest, isSpecial)) != rest.end();) {
    out.append(rest.begin(), at);
    out += *at == '"' || *at == '\\' ? std::string("\\") + *at : "\\u00" + HexBytes({at, 1});
    rest.remove_prefix(static_cast<size_t>(at - rest.begin()) + 1);
  }
  out.append(rest);
  out += '"';
}

std::string NearestMatch(std::string_view word, const std::vector<std::string>& candidates) {
  std::string best;
  size_t bestDistance = (word.size() < 4 ? 1 : std::max<size_t>(2, word.size() / 3)) + 1;
  for (const std::string& candidate : candidates) {
    std::vector<size_t> row(candidate.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 1; i <= word.size(); ++i) {
      size_t diagonal = std::exchange(row[0], i);
      for (size_t j = 1; j <= candidate.size(); ++j) {
        const size_t change = diagonal + (word[i - 1] == candidate[j - 1] ? 0U : 1U);
        diagonal = std::exchange(row[j], std::min({row[j] + 1, row[j - 1] + 1, change}));
      }
    }
    const bool isBeginning = word.size() >= 2 && candidate.starts_with(word);
    const size_t distance = isBeginning ? 1 : row.back();
    if (distance < bestDistance && distance < std::max(word.size(), candidate.size())) {
      bestDistance = distance;
      best = candidate;
    }
  }
  return best;
}

std::string DidYouMean(std::string_view word, const std::vector<std::string>& candidates, std::string_view otherwise) {
  const std::string nearest = NearestMatch(word, candidates);
  return nearest.empty() ? std::string(otherwise) : "did you mean " + nearest + "?";
}

std::string HexBytes(std::string_view bytes, std::string_view separator, std::string_view digits) {
  std::string text;
  text.reserve(bytes.size() * (2 + separator.size()));
  for (const char character : bytes) {
    const auto byte = static_cast<unsigned char>(character);
    if (!text.empty()) text += separator;
    text += digits[byte >> 4];
    text += digits[byte & 0xF];
  }
  return text;
}

std::string HumanSize(unsigned long long bytes) {
  constexpr std::string_view kUnits = "BKMGTPE";
  auto value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1024.0 && unit + 1 < kUnits.size()) {
    value /= 1024.0;
    ++unit;
  }
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), value < 10.0 && unit > 0 ? "%.1f%c" : "%.0f%c", value, kUnits[unit]);
  return text.data();
}

std::vector<std::string> SplitList(std::string_view text, char separator) {
  std::vector<std::string> parts;
  while (!text.empty()) {
    const size_t end = std::min(text.find(separator), text.size());
    if (end > 0) parts.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

}  // namespace ravctl
