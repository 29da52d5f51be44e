#include "registry/registry_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <cstring>

namespace {

struct MarkerRow {
  uint32_t type;
  std::string_view marker;
};

constexpr auto kMarkers = std::to_array<MarkerRow>({
    {kRegistryString, "=s="},
    {kRegistryExpandString, "=es="},
    {kRegistryNumber, "=d="},
    {kRegistryBinary, "=b="},
});

const MarkerRow* MarkerOfType(uint32_t type) {
  const auto* row = std::ranges::find(kMarkers, type, &MarkerRow::type);
  return row != kMarkers.end() ? row : nullptr;
}

bool MakeNumber(const char* text, CRegistryValue& value) {
  char* end = nullptr;
  const long number = std::strtol(text, &end, 10);
  if (end == text) return false;
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

void AppendNumber(uint32_t number, std::string& text) {
  char digits[16];
  const auto result = std::to_chars(digits, digits + sizeof digits, static_cast<int32_t>(number));
  text.append(digits, result.ptr);
}

void AppendBlock(std::span<const unsigned char> bytes, std::string& text) {
  constexpr const char* kDigits = "0123456789abcdef";
  for (const unsigned char byte : bytes) {
    const char group[] = {kDigits[byte >> 4], kDigits[byte & 0xF], ' '};
    text.append(group, sizeof group);
  }
}

bool IsSameEntry(const RegistryLine& line, const RegistryEntry& entry) {
  const auto kind = entry.IsSubKey() ? RegistryLine::Kind::kSubKey : RegistryLine::Kind::kValue;
  return line.kind == kind && line.name == entry.name && (entry.IsSubKey() || line.type == entry.type);
}

// Takes off what one read of a line would return.
std::string_view TakePiece(std::string_view& text) {
  const std::string_view piece = text.substr(0, std::min(text.find('\n'), kRegistryLineLimit - 1) + 1);
  text.remove_prefix(piece.size());
  return piece.ends_with('\n') ? piece.substr(0, piece.size() - 1) : piece;
}

}  // namespace

RegistryLine ParseRegistryLine(std::string_view line) {
  if (line.starts_with('[')) {
    const size_t end = line.find(']');
    if (end != std::string_view::npos)
      return {RegistryLine::Kind::kSubKey, line.substr(1, end - 1), kRegistrySubKey, {}};
  }
  const size_t nameEnd = line.find('=');
  if (nameEnd == std::string_view::npos) return {};
  const std::string_view rest = line.substr(nameEnd);
  for (const MarkerRow& row : kMarkers) {
    if (!rest.starts_with(row.marker)) continue;
    return {RegistryLine::Kind::kValue, line.substr(0, nameEnd), row.type, rest.substr(row.marker.size())};
  }
  return {};
}

bool MakeRegistryValue(const RegistryLine& line, CRegistryValue& value) {
  if (line.type == kRegistryNumber) return MakeNumber(line.data.data(), value);
  value = line.type == kRegistryBinary ? MakeBlock(line.data.data()) : CRegistryValue::Text(line.data, line.type);
  return true;
}

bool AppendRegistryLine(const RegistryEntry& entry, std::string& text) {
  if (!entry.HoldsValue()) return false;
  if (entry.IsSubKey()) {
    text.append("[").append(entry.name).append("]\n");
    return true;
  }
  const MarkerRow* row = MarkerOfType(entry.type);
  if (row == nullptr) return false;
  text.append(entry.name).append(row->marker);
  if (entry.type == kRegistryNumber) {
    AppendNumber(entry.Number(), text);
  } else if (entry.type == kRegistryBinary) {
    AppendBlock(entry.Block(), text);
  } else {
    text.append(entry.Text());
  }
  text.push_back('\n');
  return true;
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
