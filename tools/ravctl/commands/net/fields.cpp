// What the answers of the net commands hold.

#include "ravctl/answer/formats.h"
#include "ravctl/answer/json.h"
#include "ravctl/commands/net/group.h"
#include "ravctl/network/links.h"

namespace ravctl {

namespace {

Color ChosenColor(const Json& isChosen) {
  return isChosen == true ? Color::kGreen : Color::kNone;
}

}  // namespace

constexpr auto kLinkFields = std::to_array<Field>({
    {"name", kText, "name of the interface"},
    {"index", kCount, "its number in the kernel", kOnRequest},
    {"state", Choice("up|no carrier|down"), "whether it carries anything", {.color = StateColor}},
    {"flags", kTexts, "its flags in the kernel", kOnRequest},
    {"hardware", Choice("ethernet|infiniband|loopback|other"), "what kind of hardware it is", kOnRequest},
    {"mac", kTextOrNull, "hardware address"},
    {"mtu", kCount, "largest packet in bytes"},
    {"speed_mbit", kCountOrNull, "speed of the link in Mbit/s", {.heading = "SPEED", .format = SpeedText}},
    {"rx_bytes", kCount, "bytes received since it came up", {.heading = "RX", .format = SizeText}},
    {"rx_packets", kCount, "packets received", {.heading = "RX-PACKETS", .isUsual = false}},
    {"rx_errors", kCount, "faulty packets received", {.heading = "RX-ERRORS", .isUsual = false}},
    {"rx_dropped", kCount, "packets received and dropped", {.heading = "RX-DROPPED", .isUsual = false}},
    {"tx_bytes", kCount, "bytes sent since it came up", {.heading = "TX", .format = SizeText}},
    {"tx_packets", kCount, "packets sent", {.heading = "TX-PACKETS", .isUsual = false}},
    {"tx_errors", kCount, "packets that could not be sent", {.heading = "TX-ERRORS", .isUsual = false}},
    {"tx_dropped", kCount, "packets dropped before they were sent", {.heading = "TX-DROPPED", .isUsual = false}},
    {"rx_bytes_per_s", kCountOrNull, "bytes received a second (--rates)", {"RX/S", false, RateText}},
    {"tx_bytes_per_s", kCountOrNull, "bytes sent a second (--rates)", {"TX/S", false, RateText}},
    {"rx_packets_per_s", kCountOrNull, "packets received a second (--rates)", {"RX-PACKETS/S", false}},
    {"tx_packets_per_s", kCountOrNull, "packets sent a second (--rates)", {"TX-PACKETS/S", false}},
    {"addresses", kTexts, "all addresses with the lengths of their prefixes"},
    {"ipv4_address", kTextOrNull, "first IPv4 address", {"IPV4", false}},
    {"ipv4_netmask", kTextOrNull, "its mask", {"IPV4-NETMASK", false}},
    {"ipv4_broadcast", kTextOrNull, "its broadcast address", {"IPV4-BROADCAST", false}},
    {"ipv6_address", kTextOrNull, "first IPv6 address", {"IPV6", false}},
    {"ipv6_netmask", kTextOrNull, "its mask", {"IPV6-NETMASK", false}},
    {"ipv4_routes", kCount, "how many IPv4 routes lead through it", {"IPV4-ROUTES", false}},
});
constexpr Schema kNetList = {"net-list", 1, ListOf(kLinkFields)};

constexpr auto kRouteFields = std::to_array<Field>({
    {"destination", kText, "default, or address and prefix length"},
    {"gateway", kTextOrNull, "the next station; null when there is none"},
    {"interface", kTextOrNull, "the interface that it leads through"},
    {"source", kTextOrNull, "the address that packets bear as their source"},
    {"metric", kCount, "the smaller one is preferred"},
});
constexpr Schema kNetRoutes = {"net-routes", 1, ListOf(kRouteFields)};

constexpr auto kHostIpFields = std::to_array<Field>({
    {"version", {.kind = Type::Kind::kCount, .choices = "4|6"}, "version of the protocol", {.heading = "IP"}},
    {"interface", kText, "name of the interface"},
    {"address", kTextOrNull, "its address that the choice looks at"},
    {"number", kCountOrNull, "which of the usable addresses it is, from 0", kOnRequest},
    {"chosen", kBoolean, "whether it stands for this machine", {.color = ChosenColor}},
    {"why", kText, "why it was chosen or not"},
});

constexpr auto kHostIpAnswerFields = std::to_array<Field>({
    {"index", kCount, "which of the usable addresses was wanted"},
    {"ipv4", kTextOrNull, "the IPv4 address that was chosen"},
    {"ipv6", kTextOrNull, "the IPv6 address that was chosen"},
    {"interfaces", ListOf(kHostIpFields), "the interfaces in the order of the choice"},
});

constexpr Schema kNetHostIp = {"net-host-ip", 1, Record(kHostIpAnswerFields), kHostIpFields};

}  // namespace ravctl
