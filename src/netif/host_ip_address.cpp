#include "netif/host_ip_address.h"

#include <arpa/inet.h>
#include <cxxabi.h>
#include <netinet/in.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "netif/libnetif_exception.h"
#include "netif/network_interface_manager.h"
#include "trace/debug.h"

namespace {

using libnetif::interface_hardware_type;
using libnetif::libnetif_exception;
using libnetif::network_interface;

std::optional<std::vector<network_interface>> ReadInterfaces(int version) {
  try {
    return libnetif::network_interface_manager().get_network_interfaces();
  } catch (const abi::__forced_unwind&) {
    throw;  // the thread is being cancelled
  } catch (const libnetif_exception& failure) {
    TRACE(
        1,
        "CHostIPAddress::GetHostIPv%dAddress: ERROR: Cannot get information about network interfaces! Error message: %s\n",
        version, failure.what());
  } catch (const std::invalid_argument& failure) {
    TRACE(
        1,
        "CHostIPAddress::GetHostIPv%dAddress: ERROR: Cannot get information about network interfaces! Invalid argument error: %s\n",
        version, failure.what());
  } catch (...) {
    TRACE(
        1,
        "CHostIPAddress::GetHostIPv%dAddress: ERROR: Cannot get information about network interfaces! General error.\n",
        version);
  }
  return std::nullopt;
}

// 0x0201A8C0 in network byte order => "192.168.1.2"
std::string TextOfIPv4(uint32_t address) {
  std::array<uint8_t, sizeof address> bytes;
  std::memcpy(bytes.data(), &address, bytes.size());
  std::string text;
  for (const uint8_t byte : bytes) {
    if (!text.empty()) text += '.';
    text += std::to_string(byte);
  }
  return text;
}

std::string TextOfIPv6(const libnetif::ipv6_address& address) {
  char text[INET6_ADDRSTRLEN];
  if (::inet_ntop(AF_INET6, address.data(), text, sizeof text) == nullptr) {
    const int error = errno;
    throw libnetif_exception("Can't convert ipv6 address to string.", error);
  }
  return text;
}

// The interface's address as text, "" when it has none.
std::string AddressOf(const network_interface& interface, int number, int version) {
  if (version == CHostIPAddress::ipv6) {
    const libnetif::ipv6_address address = interface.get_ipv6_address();
    if (address != libnetif::ipv6_address{}) return TextOfIPv6(address);
    TRACE(4, "CHostIPAddress::GetHostIPv%dAddress: INFO: Interface %d (%s) does not have IP V6.\n", version, number,
          interface.get_name().c_str());
    return "";
  }
  try {
    return TextOfIPv4(interface.get_ipv4_address());
  } catch (const libnetif_exception&) {
    TRACE(4, "CHostIPAddress::GetHostIPv%dAddress: INFO: Interface %d (%s) does not have IP V%d.\n", version, number,
          interface.get_name().c_str(), version);
    return "";
  }
}

bool IsEthernet(const network_interface& interface, int number, int version) {
  const interface_hardware_type type = interface.get_hardware_type();
  if (type == interface_hardware_type::ethernet) return true;
  TRACE(
      4,
      "CHostIPAddress::GetHostIPv%dAddress: INFO: interface  %d (%s) is ignored (not Ethernet interface). Interface type %d\n",
      version, number, interface.get_name().c_str(), static_cast<int>(type));
  return false;
}

std::string FindAddress(const std::vector<network_interface>& interfaces, int index, int version) {
  int usable = 0;
  int number = -1;
  for (const network_interface& interface : interfaces) {
    if (!IsEthernet(interface, ++number, version)) continue;
    std::string address = AddressOf(interface, number, version);
    if (address.empty()) continue;
    if (usable++ != index) continue;
    TRACE(
        3,
        "CHostIPAddress::GetHostIPv%dAddress: INFO: IP V%d %s for interface %d (%s) will be returned. Requested index: %d\n",
        version, version, address.c_str(), number, interface.get_name().c_str(), index);
    return address;
  }
  return "";
}

// "192.168.1.2" => 192, 168, 1, 2. False for a part that is no number up to 255 and for any other number of parts.
bool ParseIPv4(std::string_view text, std::vector<uint8_t>& bytes) {
  constexpr size_t minimumLength = 8;
  if (text.size() < minimumLength) return false;
  std::vector<uint8_t> parsed(sizeof(in_addr));
  const char* position = text.data();
  const char* const end = position + text.size();
  for (size_t i = 0; i < parsed.size(); ++i) {
    if (i > 0 && (position == end || *position++ != '.')) return false;
    const auto [next, error] = std::from_chars(position, end, parsed[i]);
    if (error != std::errc()) return false;
    position = next;
  }
  if (position != end) return false;
  bytes = parsed;
  return true;
}

}  // namespace

std::string CHostIPAddress::GetHostIPAddress(int index, ip_version version) {
  const auto interfaces = ReadInterfaces(version);
  if (!interfaces) return "";
  const int count = static_cast<int>(interfaces->size());
  TRACE(4, "CHostIPAddress::GetHostIPv%dAddress: INFO: number of network interfaces = %d. Input index: %d.\n", version,
        count, index);
  if (index >= count) {
    TRACE(
        4,
        "CHostIPAddress::GetHostIPv%dAddress: INFO: number of network interfaces = %d is smaller than input index %d. IP V%d will not be returned.\n",
        version, count, index, version);
    return "";
  }
  try {
    return FindAddress(*interfaces, index, version);
  } catch (const abi::__forced_unwind&) {
    throw;  // the thread is being cancelled
  } catch (const std::invalid_argument& failure) {
    TRACE(1, "CHostIPAddress::GetHostIPv%dAddress: ERROR: Cannot get IP address. Invalid argument error: %s\n", version,
          failure.what());
  } catch (...) {
    TRACE(1, "CHostIPAddress::GetHostIPv%dAddress: ERROR: Cannot get IP address. General error.\n", version);
  }
  return "";
}

bool CHostIPAddress::GetHostIPv4Address(CIPAddress& address, int index) {
  const std::string text = GetHostIPAddress(index, ipv4);
  if (text.empty()) return false;
  std::vector<uint8_t> bytes;
  if (ParseIPv4(text, bytes)) address.SetBytes(std::move(bytes));
  return true;
}

bool CHostIPAddress::GetHostIPv6Address(CIPAddress& address, int index) {
  const std::string text = GetHostIPAddress(index, ipv6);
  if (text.empty()) return false;
  std::vector<uint8_t> bytes(sizeof(in6_addr));
  if (::inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1) address.SetBytes(std::move(bytes));
  return true;
}
