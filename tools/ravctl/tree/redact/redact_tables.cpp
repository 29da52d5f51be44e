#include "ravctl/tree/redact/redact_tables.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <map>
#include <numeric>
#include <optional>

#include "firmware/little_endian.h"
#include "firmware/smbios_from_memory.h"
#include "firmware/smbios_walk.h"
#include "ravctl/base/text.h"
#include "ravctl/tree/physical_memory.h"

namespace ravctl {

namespace {

using smbios_tables::_DMI_21_EPS;
using smbios_tables::_DMI_30_EPS;

constexpr uint8_t kSystem = 1;
constexpr size_t kSystemUuid = 8;
constexpr size_t kUuidSize = 16;
constexpr uint8_t kOemStrings = 11;
constexpr uint8_t kControllerInterface = 42;
constexpr uint8_t kFirstOemType = 128;
constexpr size_t kHeaderSize = sizeof(_DMI_20_HEADER);

// Where a structure has the number of a string that is a serial number or an asset tag (DMTF DSP0134, 7).
struct SerialField {
  uint8_t type;
  size_t offset;
};
constexpr auto kSerialFields = std::to_array<SerialField>({
    {1, 0x07},  // system
    {2, 0x07},  // baseboard
    {2, 0x08},
    {3, 0x07},  // chassis
    {3, 0x08},
    {4, 0x20},  // processor
    {4, 0x21},
    {17, 0x18},  // memory device
    {17, 0x19},
    {22, 0x07},  // battery
    {39, 0x08},  // power supply
    {39, 0x09},
});

struct Structure {
  uint8_t type = 0;
  size_t start = 0;
  size_t length = 0;                                    // of the formatted area
  std::vector<std::pair<size_t, size_t>> strings = {};  // places and lengths
};

// Calls take for each whole structure of the piece of the text.
void ForEachStructure(std::string_view text, size_t start, size_t length,
                      const std::function<void(const Structure&)>& take) {
  const size_t end = std::min(text.size(), start + length);
  for (size_t at = start; at + kHeaderSize <= end;) {
    Structure structure{static_cast<uint8_t>(text[at]), at, static_cast<uint8_t>(text[at + 1])};
    if (structure.length < kHeaderSize || structure.length > end - at) return;
    at += structure.length;
    while (at < end && text[at] != '\0') {
      const size_t zero = std::min(text.find('\0', at), end);
      structure.strings.emplace_back(at, zero - at);
      at = zero + 1;
    }
    // An empty set of strings is two zeros.
    at += structure.strings.empty() ? 2U : 1U;
    take(structure);
    if (structure.type == kSmbiosEndOfTable) return;
  }
}

// The string that a byte of the structure numbers.
std::optional<std::pair<size_t, size_t>> StringAt(std::string_view text, const Structure& structure, size_t offset) {
  if (offset >= structure.length) return std::nullopt;
  const auto number = static_cast<uint8_t>(text[structure.start + offset]);
  if (number == 0 || number > structure.strings.size()) return std::nullopt;
  return structure.strings[number - 1U];
}

std::string UuidDigits(std::string_view bytes) {
  return SwapUuid(HexBytes(bytes));
}

std::string UuidBytes(std::string_view digits) {
  const std::string stored = SwapUuid(digits);
  std::string bytes;
  for (size_t at = 0; at < stored.size(); at += 2)
    bytes += static_cast<char>(std::stoi(stored.substr(at, 2), nullptr, 16));
  return bytes;
}

bool HasUuid(const Structure& structure) {
  return structure.type == kSystem && structure.length >= kSystemUuid + kUuidSize;
}

void RedactUuid(std::string& text, const Structure& structure, Redactor& redactor) {
  const std::string bytes = text.substr(structure.start + kSystemUuid, kUuidSize);
  // All zeros or all ones: there is none.
  if (bytes.find_first_not_of(bytes.front()) == std::string::npos) return;
  text.replace(structure.start + kSystemUuid, kUuidSize, UuidBytes(redactor.Uuid(UuidDigits(bytes))));
}

void RedactStrings(std::string& text, const Structure& structure, Redactor& redactor) {
  const bool isForeign = structure.type == kOemStrings || structure.type >= kFirstOemType;
  for (const auto& [place, length] : structure.strings) {
    std::string string = text.substr(place, length);
    if (isForeign) {
      string = redactor.Name(string);
    } else {
      redactor.Text(string);
    }
    text.replace(place, length, string);
  }
}

void RedactStructure(std::string& text, const Structure& structure, Redactor& redactor) {
  std::vector<std::pair<std::pair<size_t, size_t>, std::string>> serials;
  for (const SerialField& field : kSerialFields) {
    if (field.type != structure.type) continue;
    if (const auto string = StringAt(text, structure, field.offset)) {
      serials.emplace_back(*string, redactor.Serial(std::string_view(text).substr(string->first, string->second)));
    }
  }
  if (HasUuid(structure)) RedactUuid(text, structure, redactor);
  RedactStrings(text, structure, redactor);
  for (const auto& [place, token] : serials)
    text.replace(place.first, place.second, token);
  if (structure.type >= kFirstOemType || structure.type == kControllerInterface) {
    text.replace(structure.start + kHeaderSize, structure.length - kHeaderSize, structure.length - kHeaderSize, '\0');
  }
}

// ---- physical memory

struct MemoryTable {
  uint64_t address = 0;
  uint64_t length = 0;
};

MemoryPieces PiecesOf(const CapturedEntry& memory) {
  MemoryPieces pieces;
  size_t at = 0;
  for (const StoredRange& range : memory.ranges) {
    pieces[range.offset] = memory.content.substr(at, range.length);
    at += range.length;
  }
  return pieces;
}

std::span<const unsigned char> BytesAt(const std::string& piece, size_t at) {
  return {reinterpret_cast<const unsigned char*>(piece.data()) + at, piece.size() - at};
}

bool HasChecksum(std::span<const unsigned char> bytes) {
  return (std::accumulate(bytes.begin(), bytes.end(), 0U) & 0xFF) == 0;
}

// What is kept of a physical memory.
struct MemoryLayout {
  std::vector<MemoryTable> others;      // entry points and the PCI IRQ routing table
  std::map<uint64_t, uint64_t> tables;  // SMBIOS tables: length by address
};

// The entry points in the piece, and the tables that they tell of.
void FindTables(uint64_t address, const std::string& piece, MemoryLayout& layout) {
  for (size_t at = piece.find("_SM"); at != std::string::npos; at = piece.find("_SM", at + 1)) {
    const std::span<const unsigned char> bytes = BytesAt(piece, at);
    MemoryTable table;
    uint64_t size = 0;
    if (piece.compare(at, 4, "_SM_") == 0 && bytes.size() >= sizeof(_DMI_21_EPS)) {
      size = sizeof(_DMI_21_EPS);
      table = {ReadLittleEndian<uint32_t>(bytes, offsetof(_DMI_21_EPS, tableAddress)),
               ReadLittleEndian<uint16_t>(bytes, offsetof(_DMI_21_EPS, tableLength))};
    } else if (piece.compare(at, 5, "_SM3_") == 0 && bytes.size() >= sizeof(_DMI_30_EPS)) {
      size = sizeof(_DMI_30_EPS);
      table = {ReadLittleEndian<uint64_t>(bytes, offsetof(_DMI_30_EPS, tableAddress)),
               ReadLittleEndian<uint32_t>(bytes, offsetof(_DMI_30_EPS, tableMaximumSize))};
    }
    // Code has the letters too.
    if (size == 0 || !HasChecksum(bytes.first(size))) continue;
    layout.others.push_back({address + at, size});
    uint64_t& length = layout.tables[table.address];
    length = std::max(length, table.length);
  }
}

// The table's place in the piece that holds it.
std::optional<std::pair<std::string*, size_t>> PlaceOf(MemoryPieces& pieces, uint64_t tableAddress) {
  auto next = pieces.upper_bound(tableAddress);
  if (next == pieces.begin()) return std::nullopt;
  auto& [address, bytes] = *std::prev(next);
  const uint64_t at = tableAddress - address;
  if (at >= bytes.size()) return std::nullopt;
  return std::pair(&bytes, static_cast<size_t>(at));
}

void FindRoutingTable(uint64_t address, const std::string& piece, MemoryLayout& layout) {
  constexpr size_t kSizePlace = 6;
  const size_t at = piece.find("$PIR");
  if (at == std::string::npos || piece.size() - at < kSizePlace + 2) return;
  layout.others.push_back({address + at, ReadLittleEndian<uint16_t>(BytesAt(piece, at), kSizePlace)});
}

void Keep(uint64_t address, const std::string& old, const MemoryTable& table, std::string& piece) {
  const uint64_t from = std::max(table.address, address);
  const uint64_t to = std::min(table.address + table.length, address + old.size());
  if (from < to) piece.replace(from - address, to - from, old, from - address, to - from);
}

// Zeros where nothing is kept: nobody knows what else stands there.
std::string OnlyKept(uint64_t address, const std::string& piece, const MemoryLayout& layout) {
  std::string kept(piece.size(), '\0');
  for (const MemoryTable& table : layout.others)
    Keep(address, piece, table, kept);
  for (const auto& [start, length] : layout.tables)
    Keep(address, piece, {start, length}, kept);
  return kept;
}

MemoryLayout LayoutOf(const MemoryPieces& pieces) {
  MemoryLayout layout;
  for (const auto& [address, piece] : pieces) {
    FindTables(address, piece, layout);
    FindRoutingTable(address, piece, layout);
  }
  return layout;
}

}  // namespace

void LearnFromSmbios(std::string_view table, Redactor& redactor) {
  ForEachStructure(table, 0, table.size(), [table, &redactor](const Structure& structure) {
    for (const SerialField& field : kSerialFields) {
      if (field.type != structure.type) continue;
      if (const auto string = StringAt(table, structure, field.offset)) {
        redactor.LearnSerial(table.substr(string->first, string->second));
      }
    }
    if (HasUuid(structure)) {
      redactor.LearnHex(UuidDigits(table.substr(structure.start + kSystemUuid, kUuidSize)));
    }
  });
}

void RedactSmbios(std::string& table, size_t start, size_t length, Redactor& redactor) {
  // Nothing moves, so that the structures can be changed while they are walked.
  const std::string old = table;
  ForEachStructure(old, start, length,
                   [&table, &redactor](const Structure& structure) { RedactStructure(table, structure, redactor); });
}

void LearnFromMemory(const CapturedEntry& memory, Redactor& redactor) {
  MemoryPieces pieces = PiecesOf(memory);
  for (const auto& [address, length] : LayoutOf(pieces).tables) {
    const auto place = PlaceOf(pieces, address);
    if (place) LearnFromSmbios(std::string_view(*place->first).substr(place->second, length), redactor);
  }
}

void RedactMemory(CapturedEntry& memory, Redactor& redactor) {
  MemoryPieces pieces = PiecesOf(memory);
  const MemoryLayout layout = LayoutOf(pieces);
  for (const auto& [address, length] : layout.tables) {
    if (const auto place = PlaceOf(pieces, address)) RedactSmbios(*place->first, place->second, length, redactor);
  }
  memory.content.clear();
  for (const auto& [address, piece] : pieces)
    memory.content += OnlyKept(address, piece, layout);
}

}  // namespace ravctl
