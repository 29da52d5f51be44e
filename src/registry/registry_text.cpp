#include "registry/registry_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr std::string_view kStringMarker = "=s=";
constexpr std::string_view kExpandMarker = "=es=";
constexpr std::string_view kNumberMarker = "=d=";
constexpr std::string_view kBinaryMarker = "=b=";
constexpr size_t kMaxMarker = 4;   // characters, the brackets of a subkey included
constexpr size_t kMaxNumber = 11;  // "-2147483648"

// The type whose marker the text starts with, and the marker's length.
struct Marker {
  uint32_t type;
  size_t length;
};

Marker FindMarker(std::string_view text) {
  if (text.starts_with(kStringMarker)) return {kRegistryString, kStringMarker.size()};
  if (text.starts_with(kNumberMarker)) return {kRegistryNumber, kNumberMarker.size()};
  if (text.starts_with(kExpandMarker)) return {kRegistryExpandString, kExpandMarker.size()};
  if (text.starts_with(kBinaryMarker)) return {kRegistryBinary, kBinaryMarker.size()};
  return {kRegistryNone, 0};
}

// from_chars knows neither leading blanks nor a plus, and leaves a number that is too large alone.
bool MakeNumber(std::string_view text, CRegistryValue& value) {
  long number = 0;
  if (std::from_chars(text.begin(), text.end(), number).ec != std::errc()) {
    char* end = nullptr;
    number = std::strtol(text.data(), &end, 10);
    if (end == text.data()) return false;
  }
  value = CRegistryValue::Number(static_cast<uint32_t>(number));
  return true;
}

CRegistryValue MakeBlock(const char* text) {
  std::array<unsigned char, kRegistryLineLimit> bytes{};
  size_t count = 0;
  for (char* end = nullptr; count < bytes.size(); text = end) {
    const long byte = std::strtol(text, &end, 16);
    if (end == text) break;
    bytes[count++] = static_cast<unsigned char>(byte);
  }
  return CRegistryValue::Block({bytes.data(), count});
}

char* PutText(char* out, std::string_view text) {
  std::memcpy(out, text.data(), text.size());
  return out + text.size();
}

constexpr uint64_t EachByte(unsigned char byte) {
  return 0x0101010101010101U * byte;
}

// Not 0 when one of the eight bytes is this one.
uint64_t FindByte(uint64_t word, unsigned char byte) {
  word ^= EachByte(byte);
  return (word - EachByte(1)) & ~word & EachByte(0x80);
}

// Copies a text and notices on the way whether one of two characters is in it. Names and values are short: this costs
// less than the library's copy and its two searches. The last eight bytes overlap those before.
char* PutAndWatch(char* out, std::string_view text, char first, char second, bool& isFound) {
  const auto watched1 = static_cast<unsigned char>(first);
  const auto watched2 = static_cast<unsigned char>(second);
  const size_t size = text.size();
  uint64_t word = 0;
  if (size < sizeof word) {
    for (const char c : text) {
      isFound |= c == first || c == second;
      *out++ = c;
    }
    return out;
  }
  uint64_t found = 0;
  for (size_t at = 0; at < size; at += sizeof word) {
    const size_t from = std::min(at, size - sizeof word);
    std::memcpy(&word, text.data() + from, sizeof word);
    std::memcpy(out + from, &word, sizeof word);
    found |= FindByte(word, watched1) | FindByte(word, watched2);
  }
  isFound |= found != 0;
  return out + size;
}

char* PutNumber(char* out, uint32_t number) {
  return std::to_chars(out, out + kMaxNumber, static_cast<int32_t>(number)).ptr;
}

char* PutBlock(char* out, std::span<const unsigned char> bytes) {
  constexpr const char* kDigits = "0123456789abcdef";
  for (const unsigned char byte : bytes) {
    *out++ = kDigits[byte >> 4];
    *out++ = kDigits[byte & 0xF];
    *out++ = ' ';
  }
  return out;
}

std::string_view MarkerOf(uint32_t type) {
  switch (type) {
    case kRegistryString:
      return kStringMarker;
    case kRegistryExpandString:
      return kExpandMarker;
    case kRegistryBinary:
      return kBinaryMarker;
    case kRegistryNumber:
      return kNumberMarker;
    default:
      return {};
  }
}

// Characters of a line beside its data.
size_t RoomForLine(const RegistryEntry& entry) {
  return entry.nameLength + kMaxMarker + 1;
}

size_t RoomForData(const RegistryEntry& entry, std::string_view text) {
  if (entry.type == kRegistryNumber) return kMaxNumber;
  return entry.type == kRegistryBinary ? 3 * entry.Block().size() : text.size();
}

bool IsSameEntry(const RegistryLine& line, const RegistryEntry& entry) {
  const auto kind = entry.IsSubKey() ? RegistryLine::Kind::kSubKey : RegistryLine::Kind::kValue;
  return line.kind == kind && line.name == entry.Name() && (entry.IsSubKey() || line.type == entry.type);
}

// Takes off what one read of a line would return.
std::string_view TakePiece(std::string_view& text) {
  const std::string_view piece = text.substr(0, std::min(text.find('\n'), kRegistryLineLimit - 1) + 1);
  text.remove_prefix(piece.size());
  return piece.ends_with('\n') ? piece.substr(0, piece.size() - 1) : piece;
}

}  // namespace

RegistryText::~RegistryText() {
  std::free(m_Bytes);
}

void RegistryText::Grow(size_t count) {
  const size_t capacity = std::max(m_Size + count, 2 * m_Capacity);
  void* bytes = std::realloc(m_Bytes, capacity);
  if (bytes == nullptr) throw std::bad_alloc();
  m_Bytes = static_cast<char*>(bytes);
  m_Capacity = capacity;
}

RegistryLine ParseRegistryLine(std::string_view line) {
  if (line.starts_with('[')) {
    const size_t end = line.find(']');
    if (end != std::string_view::npos)
      return {RegistryLine::Kind::kSubKey, line.substr(1, end - 1), kRegistrySubKey, {}};
  }
  const size_t nameEnd = line.find('=');
  if (nameEnd == std::string_view::npos) return {};
  const std::string_view rest = line.substr(nameEnd);
  const Marker marker = FindMarker(rest);
  if (marker.type == kRegistryNone) return {};
  return {RegistryLine::Kind::kValue, line.substr(0, nameEnd), marker.type, rest.substr(marker.length)};
}

bool MakeRegistryValue(const RegistryLine& line, CRegistryValue& value) {
  if (line.type == kRegistryNumber) return MakeNumber(line.data, value);
  value = line.type == kRegistryBinary ? MakeBlock(line.data.data()) : CRegistryValue::Text(line.data, line.type);
  return true;
}

RegistryAppended AppendRegistryLine(const RegistryEntry& entry, RegistryText& text) {
  if (!entry.HoldsValue()) return RegistryAppended::kNothing;
  if (entry.IsSubKey()) {
    char* out = PutText(PutText(text.Reserve(RoomForLine(entry)), "["), entry.Name());
    text.Commit(PutText(out, "]\n"));
    return RegistryAppended::kUnsure;
  }
  if (MarkerOf(entry.type).empty()) return RegistryAppended::kNothing;
  const std::string_view data = entry.IsText() ? std::string_view(entry.Text()) : std::string_view();
  const size_t room = RoomForLine(entry) + RoomForData(entry, data);
  char* const begin = text.Reserve(room);
  bool isOdd = entry.nameLength > 0 && entry.name[0] == '[';
  char* out = PutAndWatch(begin, entry.Name(), '=', '\n', isOdd);
  out = PutText(out, MarkerOf(entry.type));
  if (entry.type == kRegistryNumber) {
    out = PutNumber(out, entry.Number());
  } else if (entry.type == kRegistryBinary) {
    out = PutBlock(out, entry.Block());
  } else {
    out = PutAndWatch(out, data, '\n', '\n', isOdd);
  }
  *out++ = '\n';
  text.Commit(out);
  const bool isShort = static_cast<size_t>(out - begin) <= kRegistryLineLimit;
  return isShort && !isOdd ? RegistryAppended::kCarried : RegistryAppended::kUnsure;
}

RegistryFate FateOfRegistryLine(const RegistryEntry& entry, std::string_view line) {
  const std::string_view first = TakePiece(line);
  const RegistryLine read = ParseRegistryLine(first);
  if (read.kind != RegistryLine::Kind::kSkipped && !IsSameEntry(read, entry)) return RegistryFate::kHarmful;
  // The lines that follow a subkey's name would land in the key above it.
  if (entry.IsSubKey() && read.kind == RegistryLine::Kind::kSkipped) return RegistryFate::kHarmful;
  if (line.empty()) return read.kind == RegistryLine::Kind::kSkipped ? RegistryFate::kLost : RegistryFate::kCarried;
  while (!line.empty()) {
    const std::string_view piece = TakePiece(line);
    if (piece.empty() || ParseRegistryLine(piece).kind != RegistryLine::Kind::kSkipped) return RegistryFate::kHarmful;
  }
  return RegistryFate::kLost;
}
