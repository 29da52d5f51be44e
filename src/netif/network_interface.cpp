#include "netif/network_interface.h"

#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <utility>

#include "netif/kernel_answers.h"
#include "netif/libnetif_exception.h"
#include "netif/libnetif_socket.h"
#include "netif/netlink_dump.h"
#include "platform/cancellation.h"
#include "platform/unique_fd.h"

namespace libnetif {

namespace {

constexpr std::string_view class_net_directory = "/sys/class/net/";
constexpr std::string_view address_file = "/address";
constexpr std::string_view statistics_name = "network interface";
constexpr std::string_view infiniband_failure = "Retriving interface infiniband address failed.";

constexpr auto hardware_types = std::to_array<std::pair<uint16_t, interface_hardware_type>>({
    {ARPHRD_ETHER, interface_hardware_type::ethernet},
    {ARPHRD_INFINIBAND, interface_hardware_type::infiniband},
    {ARPHRD_LOOPBACK, interface_hardware_type::loopback},
});

interface_hardware_type hardware_type_of(const ifreq& answer) {
  for (const auto& [kernel_type, type] : hardware_types) {
    if (kernel_type == answer.ifr_hwaddr.sa_family) return type;
  }
  return interface_hardware_type::unknown;
}

// A name that the kernel cannot have would be another one when it is cut.
ifreq request_for(const std::string& name, std::string_view message) {
  ifreq request{};
  if (name.size() >= sizeof request.ifr_name) throw libnetif_exception(message, ENODEV);
  name.copy(request.ifr_name, name.size());
  return request;
}

void invoke_interface_ioctl(ifreq& request, unsigned long code, std::string_view message) {
  libnetif_socket socket;
  socket.create_ip_proto_socket(AF_INET);
  socket.invoke_ioctl(code, &request, message);
  socket.close_socket_descriptor();
}

ifreq ask_interface(const std::string& name, unsigned long code, std::string_view message) {
  ifreq request = request_for(name, message);
  invoke_interface_ioctl(request, code, message);
  return request;
}

uint32_t ask_ipv4(const std::string& name, unsigned long code, std::string_view message) {
  const ifreq answer = ask_interface(name, code, message);
  sockaddr_in address{};
  std::memcpy(&address, &answer.ifr_addr, sizeof address);
  if (address.sin_family != AF_INET) throw libnetif_exception("This interface doesn't contain ipv4 address.");
  return address.sin_addr.s_addr;
}

// The number of characters read, at most what the buffer has room for; -1 with errno set on failure.
ssize_t read_file(const std::string& path, std::span<char> buffer) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return -1;
  ssize_t size = 0;
  do {
    size = ::read(file.Get(), buffer.data(), buffer.size());
  } while (size < 0 && errno == EINTR);
  return size;
}

// The first IPv6 entry of the interface: its address, or its netmask when that member is asked for.
ipv6_address find_ipv6(const std::string& name, sockaddr* ifaddrs::*member) {
  const CancellationBlock block;  // the system's function is declared to throw nothing
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) {
    const int error = errno;
    throw libnetif_exception("Retriving interface ipv6 address failed.", error);
  }
  const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(list, &::freeifaddrs);
  ipv6_address found{};
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    const sockaddr* value = entry->*member;
    if (value == nullptr || value->sa_family != AF_INET6 || name != entry->ifa_name) continue;
    std::memcpy(found.data(), reinterpret_cast<const sockaddr_in6*>(value)->sin6_addr.s6_addr, found.size());
    break;
  }
  return found;
}

}  // namespace

network_interface::network_interface(std::string name) : m_name(std::move(name)) {}

uint16_t network_interface::get_flags() const {
  return static_cast<uint16_t>(ask_interface(m_name, SIOCGIFFLAGS, "Retriving interface flags failed.").ifr_flags);
}

bool network_interface::get_flag(uint16_t mask) const {
  return (get_flags() & mask) != 0;
}

bool network_interface::is_up() const {
  return get_flag(IFF_UP);
}

bool network_interface::is_running() const {
  return get_flag(IFF_RUNNING);
}

bool network_interface::is_loopback() const {
  return get_flag(IFF_LOOPBACK);
}

bool network_interface::is_broadcast_set() const {
  return get_flag(IFF_BROADCAST);
}

bool network_interface::is_multicast_support() const {
  return get_flag(IFF_MULTICAST);
}

int network_interface::get_mtu() const {
  return ask_interface(m_name, SIOCGIFMTU, "Retriving interface mtu failed.").ifr_mtu;
}

int network_interface::get_ipv4_index() const {
  return ask_interface(m_name, SIOCGIFINDEX, "Retriving interface ipv4 index failed.").ifr_ifindex;
}

uint32_t network_interface::get_ipv4_address() const {
  return ask_ipv4(m_name, SIOCGIFADDR, "Retriving interface ipv4 address failed.");
}

uint32_t network_interface::get_ipv4_netmask() const {
  return ask_ipv4(m_name, SIOCGIFNETMASK, "Retriving interface ipv4 netmask failed.");
}

uint32_t network_interface::get_ipv4_broadcast() const {
  return ask_ipv4(m_name, SIOCGIFBRDADDR, "Retriving interface ipv4 broadcast failed.");
}

uint64_t network_interface::get_ether_address() const {
  constexpr size_t size = 6;
  const ifreq answer = ask_interface(m_name, SIOCGIFHWADDR, "Retriving interface ether address failed.");
  if (hardware_type_of(answer) != interface_hardware_type::ethernet) {
    throw libnetif_exception("This interface doesn't contain ether hardrware address.");
  }
  uint64_t address = 0;
  for (size_t i = size; i-- > 0;) {
    address = address << 8 | static_cast<uint8_t>(answer.ifr_hwaddr.sa_data[i]);
  }
  return address;
}

infiniband_address network_interface::get_infiniband_address() const {
  const ifreq answer = ask_interface(m_name, SIOCGIFHWADDR, infiniband_failure);
  if (hardware_type_of(answer) != interface_hardware_type::infiniband) {
    throw libnetif_exception("This interface doesn't contain infiniband hardrware address.");
  }
  // The kernel's answer has room for 14 bytes only, so the address comes from the file.
  std::array<char, 128> text;
  const ssize_t size = read_file(std::string(class_net_directory).append(m_name).append(address_file), text);
  const int error = errno;
  if (size < 0) throw libnetif_exception(infiniband_failure, error);
  infiniband_address address{};
  if (!parse_infiniband_address({text.data(), static_cast<size_t>(size)}, address)) {
    throw libnetif_exception(infiniband_failure, EBADMSG);
  }
  return address;
}

interface_hardware_type network_interface::get_hardware_type() const {
  return hardware_type_of(ask_interface(m_name, SIOCGIFHWADDR, "Retriving interface ether address failed."));
}

int network_interface::get_max_speed() const {
  ethtool_cmd settings{};
  settings.cmd = ETHTOOL_GSET;
  constexpr std::string_view failure_text = "Retriving interface max speed failed.";
  ifreq request = request_for(m_name, failure_text);
  request.ifr_data = reinterpret_cast<char*>(&settings);
  try {
    invoke_interface_ioctl(request, SIOCETHTOOL, failure_text);
  } catch (const libnetif_exception& failure) {
    // The number stands for its text "Operation not supported", which the locale may translate.
    if (failure.error_number() == EOPNOTSUPP) return -1;
    throw;
  }
  return static_cast<int>(static_cast<uint32_t>(settings.speed_hi) << 16 | settings.speed);
}

ipv6_address network_interface::get_ipv6_address() const {
  return find_ipv6(m_name, &ifaddrs::ifa_addr);
}

ipv6_address network_interface::get_ipv6_netmask() const {
  return find_ipv6(m_name, &ifaddrs::ifa_netmask);
}

network_statistics network_interface::get_network_statistics() const {
  network_statistics statistics;
  const auto take = [index = get_ipv4_index(), &statistics](const netlink_message& message) {
    parse_link_statistics(message, index, statistics);
  };
  read_netlink_dump(
      RTM_GETLINK, sizeof(ifinfomsg), statistics_name, [&statistics] { statistics = {}; }, take);
  return statistics;
}

bool parse_infiniband_address(std::string_view text, infiniband_address& address) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  infiniband_address parsed{};
  for (size_t i = 0; i < parsed.size(); ++i) {
    const std::string_view part = text.substr(0, text.find(':'));
    const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), parsed[i], 16);
    if (error != std::errc() || end != part.data() + part.size()) return false;
    const bool is_last = i + 1 == parsed.size();
    if (is_last != (part.size() == text.size())) return false;
    if (!is_last) text.remove_prefix(part.size() + 1);
  }
  address = parsed;
  return true;
}

}  // namespace libnetif
