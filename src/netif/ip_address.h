#pragma once

#include <cstdint>
#include <utility>
#include <vector>

// The bytes of one IP address in network order: 4 for IPv4, 16 for IPv6, none before it is filled.
class CIPAddress {
 public:
  CIPAddress() = default;
  explicit CIPAddress(std::vector<uint8_t> bytes) : m_Bytes(std::move(bytes)) {}

  const std::vector<uint8_t>& GetBytes() const { return m_Bytes; }
  void SetBytes(std::vector<uint8_t> bytes) { m_Bytes = std::move(bytes); }

  bool operator==(const CIPAddress&) const = default;

 private:
  std::vector<uint8_t> m_Bytes;
};
