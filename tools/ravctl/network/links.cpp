#include "ravctl/network/links.h"

#include <arpa/inet.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>

#include "netif/libnetif_socket.h"
#include "netif/netlink.h"
#include "netif/network_interface_manager.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace {

using libnetif::interface_hardware_type;
using libnetif::libnetif_exception;
using libnetif::libnetif_socket;
using libnetif::netlink_message;
using libnetif::network_interface;

using AddressMap = std::map<int, std::vector<std::string>>;

struct FlagRow {
  uint16_t flag;
  const char* name;
};

constexpr auto kFlags = std::to_array<FlagRow>({
    {IFF_UP, "up"},
    {IFF_RUNNING, "running"},
    {IFF_LOOPBACK, "loopback"},
    {IFF_BROADCAST, "broadcast"},
    {IFF_MULTICAST, "multicast"},
    {IFF_POINTOPOINT, "point-to-point"},
    {IFF_NOARP, "no-arp"},
    {IFF_PROMISC, "promiscuous"},
    {IFF_ALLMULTI, "all-multicast"},
    {IFF_MASTER, "master"},
    {IFF_SLAVE, "slave"},
});

// The beginning of rtnl_link_stats64, which grew at its end over the years.
enum Counter : uint8_t { kRxPackets, kTxPackets, kRxBytes, kTxBytes, kRxErrors, kTxErrors, kRxDropped, kTxDropped };
using CounterFields = std::array<uint64_t, kTxDropped + 1>;

// Asks for everything of one kind and passes the answers to the handler.
void Dump(uint16_t request, size_t payloadSize, libnetif::netlink_message_handler handler, void* context) {
  libnetif_socket socket;
  socket.create_netlink_socket();
  socket.send_netlink_message(payloadSize, request, "network interfaces");
  socket.receive_netlink_message(handler, context, "network interfaces");
}

void TakeCounters(const netlink_message& message, void* context) {
  ifinfomsg head{};
  if (message.type != RTM_NEWLINK || !libnetif::read_prefix(message.payload, head)) return;
  auto& counters = static_cast<CounterSample*>(context)->links[head.ifi_index];
  libnetif::for_each_attribute(
      libnetif::skip_aligned(message.payload, sizeof head), [&counters](uint16_t type, libnetif::byte_span value) {
        CounterFields fields{};
        if (type != IFLA_STATS64 || !libnetif::read_prefix(value, fields)) return;
        counters = {fields[kRxBytes], fields[kRxPackets], fields[kRxErrors], fields[kRxDropped],
                    fields[kTxBytes], fields[kTxPackets], fields[kTxErrors], fields[kTxDropped]};
      });
}

void TakeAddress(const netlink_message& message, void* context) {
  ifaddrmsg head{};
  if (message.type != RTM_NEWADDR || !libnetif::read_prefix(message.payload, head)) return;
  if (head.ifa_family != AF_INET && head.ifa_family != AF_INET6) return;
  const size_t size = head.ifa_family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
  std::array<std::byte, sizeof(in6_addr)> address{};
  bool hasLocal = false;
  bool hasAddress = false;
  // Where both are given, as on a point-to-point link, the other one is the peer's.
  libnetif::for_each_attribute(libnetif::skip_aligned(message.payload, sizeof head),
                               [&](uint16_t type, libnetif::byte_span value) {
                                 if ((type != IFA_LOCAL && (type != IFA_ADDRESS || hasLocal)) || value.size() < size) {
                                   return;
                                 }
                                 hasLocal = type == IFA_LOCAL;
                                 hasAddress = true;
                                 std::memcpy(address.data(), value.data(), size);
                               });
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (!hasAddress || ::inet_ntop(head.ifa_family, address.data(), text.data(), text.size()) == nullptr) return;
  auto& addresses = (*static_cast<AddressMap*>(context))[static_cast<int>(head.ifa_index)];
  addresses.push_back(std::string(text.data()) + "/" + std::to_string(head.ifa_prefixlen));
}

std::string AddressText(std::span<const uint8_t> bytes) {
  return HexBytes({reinterpret_cast<const char*>(bytes.data()), bytes.size()}, ":");
}

std::string MacOf(const network_interface& interface) {
  switch (interface.get_hardware_type()) {
    case interface_hardware_type::ethernet: {
      const uint64_t address = interface.get_ether_address();
      std::array<uint8_t, 6> bytes{};
      for (size_t index = 0; index < bytes.size(); ++index)
        bytes[index] = static_cast<uint8_t>(address >> (8 * index));
      return AddressText(bytes);
    }
    case interface_hardware_type::infiniband: {
      return AddressText(interface.get_infiniband_address());
    }
    default:
      return "";
  }
}

// A driver that does not tell its speed is no fault of the interface.
int SpeedOf(const network_interface& interface) {
  try {
    return std::max(interface.get_max_speed(), 0);
  } catch (const libnetif_exception&) {
    return 0;
  }
}

Link ReadLink(const network_interface& interface) {
  return {.index = interface.get_ipv4_index(),
          .name = interface.get_name(),
          .flags = interface.get_flags(),
          .hardware = HardwareName(interface.get_hardware_type()),
          .mac = MacOf(interface),
          .mtu = interface.get_mtu(),
          .speed = SpeedOf(interface),
          .addresses = {}};
}

std::vector<std::string> FlagNames(uint16_t flags) {
  std::vector<std::string> names;
  for (const FlagRow& row : kFlags) {
    if ((flags & row.flag) != 0) names.emplace_back(row.name);
  }
  return names;
}

bool IsGone(const libnetif_exception& failure) {
  return failure.error_number() == ENODEV || failure.error_number() == ENXIO;
}

}  // namespace

std::vector<Link> ReadLinks() try {
  AddressMap addresses;
  Dump(RTM_GETADDR, sizeof(ifaddrmsg), TakeAddress, &addresses);
  std::vector<Link> links;
  for (const network_interface& interface : libnetif::network_interface_manager().get_network_interfaces()) {
    try {
      links.push_back(ReadLink(interface));
      links.back().addresses = addresses[links.back().index];
    } catch (const libnetif_exception& failure) {
      if (!IsGone(failure)) throw;
    }
  }
  return links;
} catch (const libnetif_exception& failure) {
  throw NetworkFailure(failure);
}

CounterSample ReadCounters() try {
  CounterSample sample{.time = std::chrono::steady_clock::now(), .links = {}};
  Dump(RTM_GETLINK, sizeof(ifinfomsg), TakeCounters, &sample);
  return sample;
} catch (const libnetif_exception& failure) {
  throw NetworkFailure(failure);
}

Json ToJson(const Link& link) {
  return {{"name", link.name},
          {"index", link.index},
          {"state", StateOf(link.flags)},
          {"flags", FlagNames(link.flags)},
          {"hardware", link.hardware},
          {"mac", link.mac.empty() ? Json() : Json(link.mac)},
          {"mtu", link.mtu},
          {"speed_mbit", link.speed > 0 ? Json(link.speed) : Json()},
          {"addresses", link.addresses}};
}

void AddCounters(const LinkCounters& counters, Json& object) {
  object["rx_bytes"] = counters.rxBytes;
  object["rx_packets"] = counters.rxPackets;
  object["rx_errors"] = counters.rxErrors;
  object["rx_dropped"] = counters.rxDropped;
  object["tx_bytes"] = counters.txBytes;
  object["tx_packets"] = counters.txPackets;
  object["tx_errors"] = counters.txErrors;
  object["tx_dropped"] = counters.txDropped;
}

std::string StateOf(uint16_t flags) {
  if ((flags & IFF_UP) == 0) return "down";
  return (flags & IFF_RUNNING) != 0 ? "up" : "no carrier";
}

Color StateColor(const Json& state) {
  return state == "up" ? Color::kGreen : state == "down" ? Color::kGray : Color::kYellow;
}

const char* HardwareName(interface_hardware_type type) {
  switch (type) {
    case interface_hardware_type::ethernet:
      return "ethernet";
    case interface_hardware_type::infiniband:
      return "infiniband";
    case interface_hardware_type::loopback:
      return "loopback";
    case interface_hardware_type::unknown:
      break;
  }
  return "other";
}

std::string IPv4Text(uint32_t address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  return ::inet_ntop(AF_INET, &address, text.data(), text.size()) != nullptr ? text.data() : "";
}

std::string IPv6Text(const libnetif::ipv6_address& address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  return ::inet_ntop(AF_INET6, address.data(), text.data(), text.size()) != nullptr ? text.data() : "";
}

std::string SpeedText(const Json& megabits) {
  const int speed = megabits.get<int>();
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), speed < 1000 ? "%gM" : "%gG", speed < 1000 ? speed : speed / 1000.0);
  return text.data();
}

std::string ReasonOf(const libnetif_exception& failure) {
  const std::string text = failure.what();
  const size_t lineEnd = text.find('\n');
  if (lineEnd == std::string::npos) return text;
  return failure.error_number() != 0 ? std::strerror(failure.error_number()) : text.substr(0, lineEnd);
}

CommandError NetworkFailure(const libnetif_exception& failure, const std::string& where) {
  const std::string text = failure.what();
  const int error = failure.error_number();
  const bool isForbidden = error == EPERM || error == EACCES;
  return {isForbidden ? ExitCode::kPermission : ExitCode::kInputMissing, text.substr(0, text.find('\n')),
          where.empty() ? ReasonOf(failure) : where + ": " + ReasonOf(failure), isForbidden ? "needs root" : ""};
}

}  // namespace ravctl
