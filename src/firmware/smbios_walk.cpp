#include "firmware/smbios_walk.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "firmware/data_stream.h"
#include "firmware/little_endian.h"
#include "trace/debug.h"

namespace {

constexpr char kRule[] =
    "----------------------------------------------------------"
    "----------------------------------------------------------";
static_assert(sizeof(kRule) == 116 + 1);

constexpr size_t kErrorTextSize = 256;
constexpr size_t kUsualListSize = 16;  // spares most types the growth of their list

using Bytes = std::span<const unsigned char>;

// The low half is enough to compare addresses within one trace. The position may lie behind the table.
unsigned int TracedAddress(Bytes table, size_t position) {
  return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(table.data()) + position);
}

// Header fields for traces: what lies behind the table's end reads as 0.
unsigned int TypeAt(Bytes table, size_t at) {
  return ReadLittleEndian<uint8_t>(table, at);
}
unsigned int LengthAt(Bytes table, size_t at) {
  return ReadLittleEndian<uint8_t>(table, at + 1);
}
unsigned int HandleAt(Bytes table, size_t at) {
  return ReadLittleEndian<uint16_t>(table, at + 2);
}

void TraceFound(Bytes table, size_t at) {
  TRACE(5, "\n");
  TRACE(4, "\nBuildStructureList  : - found struct type %d (handle=%d, len=%d)", static_cast<int>(TypeAt(table, at)),
        static_cast<int>(HandleAt(table, at)), static_cast<int>(LengthAt(table, at)));
}

void TraceFatalError(Bytes table, size_t position, const std::string& text) {
  TRACE(1, "\n\n%s", kRule);
  TRACE(1, "\n%s", text.c_str());
  TRACE(3, "\n   p = 0x%08X, table end = 0x%08X ", TracedAddress(table, position), TracedAddress(table, table.size()));
  TRACE(1, "\n%s\n", kRule);
}

// Position of the two NULs that end the string set, the table's size when it does not end.
size_t FindEndOfStrings(Bytes table, size_t at) {
  while (at < table.size()) {
    const void* nul = std::memchr(table.data() + at, 0, table.size() - at);
    if (nul == nullptr) return table.size();
    const auto end = static_cast<size_t>(static_cast<const unsigned char*>(nul) - table.data());
    if (end + 1 == table.size()) return table.size();
    if (table[end + 1] == 0) return end;
    TRACE(6, "\nBuildStructureList  :    -> found string \"%s\"", reinterpret_cast<const char*>(table.data() + at));
    at = end + 1;
  }
  return table.size();
}

// The three ways in which a table can end too early. Index, type and handle of the structure are traced; position is
// how far the walk got.
bool FailInHeader(Bytes table, size_t at, unsigned int index, std::string& error) {
  char text[kErrorTextSize];
  std::snprintf(text, sizeof(text),
                "## FATAL ERROR! SMBIOS structure pointer exceeds structure table end while reading struct header!\n"
                "   struct[%d], type=0x%02X, handle=%d",
                static_cast<int>(index), TypeAt(table, at), static_cast<int>(HandleAt(table, at)));
  error = text;
  TraceFatalError(table, 0, error);
  return false;
}

bool FailInFormattedArea(Bytes table, size_t at, unsigned int index, std::string& error) {
  char text[kErrorTextSize];
  std::snprintf(text, sizeof(text),
                "## FATAL ERROR! SMBIOS structure pointer exceeds structure table end while going to struct end!\n"
                "   struct[%d], last type=0x%02X, last handle=%d\n"
                "   struct Offset 0x%04X",
                static_cast<int>(index), TypeAt(table, at), static_cast<int>(HandleAt(table, at)),
                static_cast<unsigned int>(at));
  error = text;
  TraceFatalError(table, at + LengthAt(table, at), error);
  return false;
}

bool FailInStrings(Bytes table, size_t at, size_t next, unsigned int index, std::string& error) {
  char text[kErrorTextSize];
  std::snprintf(
      text, sizeof(text),
      "## FATAL ERROR! SMBIOS structure pointer exceeds structure table end while when string table end found!\n"
      "   struct[%d], type=0x%02X, handle=%d\n"
      "   struct Offset 0x%04X",
      static_cast<int>(index), TypeAt(table, at), static_cast<int>(HandleAt(table, at)), static_cast<unsigned int>(at));
  error = text;
  TraceFatalError(table, next, error);
  return false;
}

}  // namespace

bool WalkSmbiosStructures(Bytes table, SmbiosStructureIndex& index, unsigned int& walked, std::string& error) {
  std::array<SmbiosStructureList*, 256> lists{};  // the index by direct access
  walked = 0;
  size_t at = 0;
  for (;;) {
    TraceFound(table, at);
    TraceHexDump(table.subspan(at, std::min<size_t>(LengthAt(table, at), table.size() - at)), false, true);
    if (table.size() - at < sizeof(_DMI_20_HEADER)) return FailInHeader(table, at, walked, error);
    const auto* header = reinterpret_cast<const _DMI_20_HEADER*>(table.data() + at);
    SmbiosStructureList*& list = lists[header->type];
    if (list == nullptr) {
      list = &index[header->type];
      list->reserve(list->size() + kUsualListSize);
    }
    list->push_back(header);

    const size_t strings = at + header->length;
    if (strings > table.size()) return FailInFormattedArea(table, at, walked, error);
    TRACE(6, "\nBuildStructureList  :   struct[%d]: start 0x%08X, header 0x%08X, len 0x%02X", static_cast<int>(walked),
          TracedAddress(table, strings), TracedAddress(table, at), static_cast<unsigned int>(header->length));
    const size_t next = FindEndOfStrings(table, strings) + 2;
    if (next > table.size()) return FailInStrings(table, at, next, walked, error);
    ++walked;
    if (next == table.size()) {
      TRACE(4, "\nBuildStructureList  :   end of BIOS structures!");
      return true;
    }
    TRACE(6, "\nBuildStructureList  :   new pDmiStructure = 0x%08X, end=0x%08X", TracedAddress(table, next),
          TracedAddress(table, table.size()));
    if (header->type == kSmbiosEndOfTable) return true;
    at = next;
  }
}
