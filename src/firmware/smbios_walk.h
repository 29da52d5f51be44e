#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "platform/export.h"

// Header of an SMBIOS structure (DMTF DSP0134, 6.1.2), as it stands in the table. Bytes alone: no alignment.
struct _DMI_20_HEADER {
  uint8_t type;       // what the structure describes, kSmbiosSystemSlot for one
  uint8_t length;     // in bytes, of the formatted area, this header included; foreign data, may be below 4
  uint8_t handle[2];  // little-endian

  // The number by which other structures of the table refer to this one.
  unsigned int Handle() const { return static_cast<unsigned int>(handle[0] | handle[1] << 8); }

  // The formatted area, borrowed from the table. For structures of a table that was walked with success: their areas
  // lie inside the table.
  std::span<const unsigned char> FormattedArea() const {
    return {reinterpret_cast<const unsigned char*>(this), length};
  }
};
static_assert(sizeof(_DMI_20_HEADER) == 4 && alignof(_DMI_20_HEADER) == 1);

// Type of a structure that the library itself looks at:
constexpr uint8_t kSmbiosSystemSlot = 9;      // DMTF DSP0134, 7.10
constexpr uint8_t kSmbiosOnboardDevice = 41;  // DMTF DSP0134, 7.42
constexpr uint8_t kSmbiosEndOfTable = 127;    // DMTF DSP0134, End-of-Table

// Pointers to structures of one table, which outlives them:
using SmbiosStructureList = std::vector<const _DMI_20_HEADER*>;       // in table order
using SmbiosStructureIndex = std::map<uint8_t, SmbiosStructureList>;  // by type

// Walks the structures of a table once and adds a pointer to each to the index. True when the walk ended at the end of
// the table or behind an end-of-table structure, whose following bytes are ignored. False when a structure runs over
// the table's end; error then says which, and the index holds what was found so far. No structure is copied: the
// pointers point into the table.
//
// Any thread; nothing is thrown but std::bad_alloc. A length below 4 is taken as it is: the string set then starts
// inside the header. The walk moves on by two bytes at least and ends in any case.
//
// walked: the structures that were stepped over, the end-of-table structure included.
RAVD_EXPORT bool WalkSmbiosStructures(std::span<const unsigned char> table, SmbiosStructureIndex& index,
                                      unsigned int& walked, std::string& error);
