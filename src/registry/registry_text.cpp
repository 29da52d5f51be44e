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

// Room beside its data for the line of an entry of that name.
size_t RoomForLine(const RegistryEntry& entry) {
  return entry.nameLength + kMaxMarker + 1;
}

bool IsSameEntry(const RegistryLine& line, const RegistryEntry& entry) {
  const auto kind = entry.IsSubKey() ? RegistryLine::Kind::kSubKey : RegistryLine::Kind::kValue;
  return line.kind == kind && line.name == entry.Name() && (entry.IsSubKey() || line.type == entry.type);
}

// The quick answer for nearly every entry.
bool IsPlainValueLine(const RegistryEntry& entry, std::string_view line) {
  return !entry.IsSubKey() && line.size() <= kRegistryLineLimit && line.front() != '[' &&
         line.find('=') == entry.nameLength && line.find('\n') == line.size() - 1;
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

bool AppendRegistryLine(const RegistryEntry& entry, RegistryText& text) {
  if (!entry.HoldsValue()) return false;
  char* out = nullptr;
  switch (entry.type) {
    case kRegistryString:
    case kRegistryExpandString: {
      const std::string_view data = entry.Text();
      out = text.Reserve(RoomForLine(entry) + data.size());
      out = PutText(PutText(out, entry.Name()), entry.type == kRegistryString ? kStringMarker : kExpandMarker);
      out = PutText(out, data);
      break;
    }
    case kRegistryBinary: {
      const std::span<const unsigned char> data = entry.Block();
      out = PutText(text.Reserve(RoomForLine(entry) + 3 * data.size()), entry.Name());
      out = PutBlock(PutText(out, kBinaryMarker), data);
      break;
    }
    case kRegistryNumber:
      out = PutText(text.Reserve(RoomForLine(entry) + kMaxNumber), entry.Name());
      out = PutNumber(PutText(out, kNumberMarker), entry.Number());
      break;
    case kRegistrySubKey:
      out = PutText(PutText(text.Reserve(RoomForLine(entry)), "["), entry.Name());
      *out++ = ']';
      break;
    default:
      return false;
  }
  *out++ = '\n';
  text.Commit(out);
  return true;
}

RegistryFate FateOfRegistryLine(const RegistryEntry& entry, std::string_view line) {
  if (IsPlainValueLine(entry, line)) return RegistryFate::kCarried;
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
