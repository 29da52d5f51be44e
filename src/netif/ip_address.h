#pragma once

#include <cstdint>
#include <utility>
#include <vector>

// The bytes of one IP address in network order: 4 for IPv4, 16 for IPv6, none before it is filled. A plain value.
class CIPAddress {
 public:
  // Without bytes.
  CIPAddress() = default;
  // With these; how many there are is not tested.
  explicit CIPAddress(std::vector<uint8_t> bytes) : m_Bytes(std::move(bytes)) {}

  // Borrowed, valid until they are set anew.
  const std::vector<uint8_t>& GetBytes() const { return m_Bytes; }
  // Replaces them; how many there are is not tested.
  void SetBytes(std::vector<uint8_t> bytes) { m_Bytes = std::move(bytes); }

  // The same bytes.
  bool operator==(const CIPAddress&) const = default;

 private:
  std::vector<uint8_t> m_Bytes;
};
