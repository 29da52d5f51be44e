#pragma once

#include <concepts>
#include <cstddef>
#include <span>

// The one reader of multi-byte fields in firmware tables: little-endian, at any alignment, bounded by the bytes in
// hand. Bytes that lie past the end count as 0; check the length first where 0 is a value too.
//
//   ReadLittleEndian<uint16_t>({0x34, 0x12}, 0) => 0x1234
template <std::unsigned_integral T>
constexpr T ReadLittleEndian(std::span<const unsigned char> bytes, size_t offset) {
  T value = 0;
  for (size_t i = 0; i < sizeof(T) && offset < bytes.size() && i < bytes.size() - offset; ++i)
    value = static_cast<T>(value | static_cast<T>(static_cast<T>(bytes[offset + i]) << (8 * i)));
  return value;
}
