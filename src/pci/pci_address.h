#pragma once

#include <cstdint>
#include <tuple>

// Address of one PCI function. A new one is unset: bus, device and function 0xFF make an address invalid.
//
// Ordered by segment, bus, device, function. An invalid address is neither less nor greater than any other and is
// equal to none, itself included, so look-ups never find it: do not use one as the key of a container.
struct CPciAddress {
  uint16_t segment = 0;
  uint8_t bus = 0xFF;
  uint8_t device = 0xFF;
  uint8_t function = 0xFF;

  constexpr bool IsValid() const { return bus != 0xFF || device != 0xFF || function != 0xFF; }
};

constexpr bool operator<(const CPciAddress& left, const CPciAddress& right) {
  if (!left.IsValid() || !right.IsValid()) return false;
  return std::tie(left.segment, left.bus, left.device, left.function) <
         std::tie(right.segment, right.bus, right.device, right.function);
}

constexpr bool operator==(const CPciAddress& left, const CPciAddress& right) {
  return left.IsValid() && right.IsValid() && left.segment == right.segment && left.bus == right.bus &&
         left.device == right.device && left.function == right.function;
}
