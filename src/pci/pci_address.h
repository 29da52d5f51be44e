#pragma once

#include <cstdint>

// Address of one PCI function. A new one is unset: bus, device and function 0xFF make an address invalid.
//
// Ordered by segment, bus, device, function. An invalid address is neither less nor greater than any other and is
// equal to none, itself included, so look-ups never find it: do not use one as the key of a container.
struct CPciAddress {
  uint16_t segment = 0;     // called a domain by the kernel
  uint8_t bus = 0xFF;       // 0-255
  uint8_t device = 0xFF;    // 0-31
  uint8_t function = 0xFF;  // 0-7

  // False for the address of no function.
  constexpr bool IsValid() const { return (bus & device & function) != 0xFF; }

  // All fields as one number, in the order of the comparison.
  constexpr uint64_t Packed() const {
    return uint64_t{segment} << 24 | uint64_t{bus} << 16 | uint64_t{device} << 8 | function;
  }
};

// The order and the equality that the structure describes:
constexpr bool operator<(const CPciAddress& left, const CPciAddress& right) {
  return left.Packed() < right.Packed() && left.IsValid() && right.IsValid();
}
constexpr bool operator==(const CPciAddress& left, const CPciAddress& right) {
  return left.Packed() == right.Packed() && left.IsValid();
}
