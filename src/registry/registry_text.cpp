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
uint64_t FindByte(uint64_t word, char byte) {
  word ^= EachByte(static_cast<unsigned char>(byte));
  return (word - EachByte(1)) & ~word & EachByte(0x80);
}

// Copies a text and notices on the way whether one of two characters is in it. Names and values are short: this costs
// less than the library's copy and its two searches. The last eight bytes overlap those before.
template <char first, char second>
inline char* PutAndWatch(char* out, std::string_view text, uint64_t& found) {
  const size_t size = text.size();
  uint64_t word = 0;
  if (size < sizeof word) {
    for (const char c : text) {
      found |= c == first || c == second ? 1U : 0U;
      *out++ = c;
    }
    return out;
  }
  for (size_t at = 0; at < size; at += sizeof word) {
    const size_t from = std::min(at, size - sizeof word);
    std::memcpy(&word, text.data() + from, sizeof word);
    std::memcpy(out + from, &word, sizeof word);
    found |= FindByte(word, first) | FindByte(word, second);
  }
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

// The line of one value while it is written. Room is reserved for all of it at the start.
class ValueLine {
 public:
  ValueLine(const RegistryEntry& entry, std::string_view marker, size_t dataSize, RegistryText& text)
      : m_Text(text), m_Begin(text.Reserve(entry.nameLength + marker.size() + dataSize + 1)) {
    if (entry.name[0] == '[') m_Found = 1;
    Data() = PutText(PutAndWatch<'=', '\n'>(m_Begin, entry.Name(), m_Found), marker);
  }

  char*& Data() { return m_End; }
  void PutData(std::string_view data) { m_End = PutAndWatch<'\n', '\n'>(m_End, data, m_Found); }

  RegistryAppended Finish() {
    *m_End++ = '\n';
    m_Text.Commit(m_End);
    const bool isShort = static_cast<size_t>(m_End - m_Begin) <= kRegistryLineLimit;
    return isShort && m_Found == 0 ? RegistryAppended::kCarried : RegistryAppended::kUnsure;
  }

 private:
  RegistryText& m_Text;
  char* m_Begin;
  char* m_End = nullptr;
  uint64_t m_Found = 0;  // not 0 when something in the line may be read as something else
};

RegistryAppended AppendText(const RegistryEntry& entry, std::string_view marker, RegistryText& text) {
  const std::string_view data = entry.Text();
  ValueLine line(entry, marker, data.size(), text);
  line.PutData(data);
  return line.Finish();
}

RegistryAppended AppendNumber(const RegistryEntry& entry, RegistryText& text) {
  ValueLine line(entry, kNumberMarker, kMaxNumber, text);
  line.Data() = PutNumber(line.Data(), entry.Number());
  return line.Finish();
}

RegistryAppended AppendBlock(const RegistryEntry& entry, RegistryText& text) {
  const std::span<const unsigned char> bytes = entry.Block();
  ValueLine line(entry, kBinaryMarker, 3 * bytes.size(), text);
  line.Data() = PutBlock(line.Data(), bytes);
  return line.Finish();
}

RegistryAppended AppendSubKey(const RegistryEntry& entry, RegistryText& text) {
  char* out = PutText(PutText(text.Reserve(entry.nameLength + 3), "["), entry.Name());
  text.Commit(PutText(out, "]\n"));
  return RegistryAppended::kUnsure;
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
  switch (entry.type) {
    case kRegistryString:
      return AppendText(entry, kStringMarker, text);
    case kRegistryExpandString:
      return AppendText(entry, kExpandMarker, text);
    case kRegistryBinary:
      return AppendBlock(entry, text);
    case kRegistryNumber:
      return AppendNumber(entry, text);
    case kRegistrySubKey:
      return AppendSubKey(entry, text);
    default:
      return RegistryAppended::kNothing;
  }
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
