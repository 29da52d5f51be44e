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
constexpr size_t kMaxNumber = 11;                    // "-2147483648"
constexpr size_t kByteLength = 3;                    // "0a "
constexpr size_t kMaxLine = kRegistryLineLimit - 1;  // without the newline

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

std::string_view MarkerOf(uint32_t type) {
  switch (type) {
    case kRegistryString:
      return kStringMarker;
    case kRegistryExpandString:
      return kExpandMarker;
    case kRegistryNumber:
      return kNumberMarker;
    case kRegistryBinary:
      return kBinaryMarker;
    default:
      return {};
  }
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

// Starts the line of a value: its name and marker, with room for so many bytes and the newline behind them.
char* PutHead(const RegistryEntry& entry, std::string_view marker, size_t dataSize, RegistryText& text) {
  char* out = text.Reserve(entry.nameLength + marker.size() + dataSize + 1);
  return PutText(PutText(out, entry.Name()), marker);
}

void EndLine(char* out, RegistryText& text) {
  *out++ = '\n';
  text.Commit(out);
}

RegistryFit AppendText(const RegistryEntry& entry, std::string_view marker, size_t room, RegistryText& text) {
  const char* data = entry.Text();
  const auto size = std::min(static_cast<size_t>(::strchrnul(data, '\n') - data), room);
  EndLine(PutText(PutHead(entry, marker, size, text), {data, size}), text);
  return data[size] == '\0' ? RegistryFit::kWhole : RegistryFit::kCut;
}

RegistryFit AppendNumber(const RegistryEntry& entry, size_t room, RegistryText& text) {
  char* begin = PutHead(entry, kNumberMarker, kMaxNumber, text);
  char* end = std::to_chars(begin, begin + kMaxNumber, static_cast<int32_t>(entry.Number())).ptr;
  // The beginning of a number is another number.
  if (static_cast<size_t>(end - begin) > room) return RegistryFit::kLost;
  EndLine(end, text);
  return RegistryFit::kWhole;
}

RegistryFit AppendBlock(const RegistryEntry& entry, size_t room, RegistryText& text) {
  constexpr const char* kDigits = "0123456789abcdef";
  const std::span<const unsigned char> bytes = entry.Block();
  const size_t count = std::min(bytes.size(), room / kByteLength);
  char* out = PutHead(entry, kBinaryMarker, kByteLength * count, text);
  for (const unsigned char byte : bytes.first(count)) {
    *out++ = kDigits[byte >> 4];
    *out++ = kDigits[byte & 0xF];
    *out++ = ' ';
  }
  EndLine(out, text);
  return count == bytes.size() ? RegistryFit::kWhole : RegistryFit::kCut;
}

RegistryFit AppendValue(const RegistryEntry& entry, RegistryText& text) {
  const std::string_view marker = MarkerOf(entry.type);
  if (marker.empty()) return RegistryFit::kWhole;
  const size_t headSize = entry.Name().size() + marker.size();
  if (headSize > kMaxLine) return RegistryFit::kLost;
  const size_t room = kMaxLine - headSize;
  if (entry.type == kRegistryNumber) return AppendNumber(entry, room, text);
  if (entry.type == kRegistryBinary) return AppendBlock(entry, room, text);
  return AppendText(entry, marker, room, text);
}

RegistryFit AppendSubKey(const RegistryEntry& entry, RegistryText& text) {
  if (entry.Name().size() + 2 > kMaxLine) return RegistryFit::kLost;
  EndLine(PutText(PutText(PutText(text.Reserve(entry.nameLength + 3), "["), entry.Name()), "]"), text);
  return RegistryFit::kWhole;
}

// How the line of an entry whose name is not plain is read.
RegistryLine ReadBack(std::string_view line) {
  line.remove_suffix(1);
  return ParseRegistryLine(line);
}

bool IsSameEntry(const RegistryLine& line, const RegistryEntry& entry) {
  const auto kind = entry.IsSubKey() ? RegistryLine::Kind::kSubKey : RegistryLine::Kind::kValue;
  return line.kind == kind && line.name == entry.Name() && (entry.IsSubKey() || line.type == entry.type);
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

RegistryFit AppendRegistryLine(const RegistryEntry& entry, RegistryText& text) {
  if (!entry.HoldsValue()) return RegistryFit::kWhole;
  const size_t start = text.Size();
  const RegistryFit fit = entry.IsSubKey() ? AppendSubKey(entry, text) : AppendValue(entry, text);
  if (entry.isPlain || text.Size() == start) return fit;
  const bool isOneLine = entry.Name().find('\n') == std::string_view::npos;
  const RegistryLine read = isOneLine ? ReadBack(text.From(start)) : RegistryLine();
  if (isOneLine && IsSameEntry(read, entry)) return fit;
  // The lines that follow a subkey's name would land in the key above it.
  const bool isHarmless = isOneLine && !entry.IsSubKey() && read.kind == RegistryLine::Kind::kSkipped;
  if (!isHarmless) text.Cut(start);
  return RegistryFit::kLost;
}
