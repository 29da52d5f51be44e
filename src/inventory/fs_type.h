#pragma once

#include <cstdint>
#include <string_view>

// What the name of a file system's type tells.

// Flags of a type, 0 for a type that has none.
uint32_t get_fs_type_flags(std::string_view type);

// Kind of a file system as a number: 2 for local disk file systems, 1 "msdos", 4 network, 8 optical media, 16 memory;
// 0 for others and for types that are not known.
int get_fs_voltype(const char* type);
