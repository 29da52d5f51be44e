#pragma once

#include <span>
#include <string>

// Where memory ranges end, as the kernel's resource map tells.

// The end of the range that begins at that address, from /proc/iomem. The file is read once in the life of the process,
// at the first call that can read it, and kept; ranges that come later are not found. False, with the end as it was,
// when the file cannot be read or does not have the address. Any thread may call it.
bool GetMemoryResourceEndAddress(unsigned long long start, unsigned long long& end);

// The parser. Pure. The address is looked for as lower-case hexadecimal text without leading zeros, and the first line
// that contains it, in whatever place, is the one that counts.
//   0xfe000000, "  fe000000-fe7fffff : 0000:00:02.0" => 0xfe7fffff
bool FindMemoryEnd(std::span<const std::string> lines, unsigned long long start, unsigned long long& end);
