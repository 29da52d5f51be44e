#include "netif/netlink.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <csignal>

#include "netif/interface_change.h"
#include "netif/ipv4_routing_entry.h"
#include "netif/libnetif_socket.h"
#include "netif/network_statistics.h"
#include "netif/private_network.h"

using namespace libnetif;

namespace {

constexpr uint32_t kPort = 4711;

template <typename T>
std::string Bytes(const T& value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

byte_span Span(const std::string& bytes) {
  return std::as_bytes(std::span(bytes));
}

// A message whose header announces its own length, or the given one.
std::string Message(uint16_t type, const std::string& payload, size_t length = 0) {
  nlmsghdr header{};
  header.nlmsg_len = static_cast<uint32_t>(length != 0 ? length : sizeof header + payload.size());
  header.nlmsg_type = type;
  return Bytes(header) + payload + std::string((4 - payload.size() % 4) % 4, '\0');
}

std::string Attribute(uint16_t type, const std::string& payload) {
  const rtattr header{.rta_len = static_cast<uint16_t>(sizeof(rtattr) + payload.size()), .rta_type = type};
  return Bytes(header) + payload + std::string((4 - payload.size() % 4) % 4, '\0');
}

std::string Done() {
  return Message(NLMSG_DONE, Bytes(0));
}

std::string Error(int number) {
  return Message(NLMSG_ERROR, Bytes(number) + Bytes(nlmsghdr{}));
}

void CollectTypes(const netlink_message& message, void* context) {
  static_cast<std::vector<int>*>(context)->push_back(message.type);
}

void SendTo(uint32_t port, const std::string& datagram) {
  libnetif_socket sender;
  sender.create_netlink_socket();
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_pid = port;
  EXPECT_GE(::sendto(sender.descriptor(), datagram.data(), datagram.size(), 0,
                     reinterpret_cast<const sockaddr*>(&address), sizeof address),
            0);
}

void Bind(libnetif_socket& socket, uint32_t port) {
  socket.create_netlink_socket();
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_pid = port;
  socket.bind_netlink_socket(address, "test");
}

std::string ReceiveFailure(libnetif_socket& socket, std::vector<int>& types) {
  return FailureOf([&] { socket.receive_netlink_message(CollectTypes, &types, "test"); });
}

struct Reception {
  std::vector<std::string> datagrams;
  std::vector<int> types;  // of the messages that reach the handler
  std::string failure;
};

void InterruptTwiceThenSend(int) {
  static int calls = 0;
  if (++calls == 3) SendTo(kPort, Done());
}

ipv4_routing_entry unchangedEntry{.source = 1, .interface_name = "unchanged"};

}  // namespace

using Netlink = PrivateNetwork;

TEST_F(Netlink, DatagramsAreReceivedUntilDone) {
  const std::string failed = "Received test reports error.\nError message: ";
  const std::string link = Message(16, "link");
  const std::string route = Message(24, "odd");
  const std::vector<Reception> receptions = {
      {{route + link, Done()}, {24, 16}, ""},
      {{link + Message(NLMSG_NOOP, "") + Done() + route}, {16, 24}, ""},
      {{"x", "shorter", Message(16, "", 15), Message(16, "1234", 21), link + Done()}, {16}, ""},
      {{route + Message(16, "", 8) + link, Done()}, {24}, ""},
      {{route + Message(16, "1234", 4096), Done()}, {24}, ""},
      {{route + Message(16, "", UINT32_MAX), Done()}, {24}, ""},
      {{Error(-EPERM), Done()}, {}, failed + "Operation not permitted"},
      {{link + Done() + Error(-ENOBUFS) + link}, {16}, failed + "No buffer space available"},
      {{Error(0)}, {}, failed + "Success"},
      {{Message(NLMSG_ERROR, "ab")}, {}, failed + "Bad message"},
  };
  Run("", [&] {
    for (const Reception& reception : receptions) {
      libnetif_socket socket;
      Bind(socket, kPort);
      for (const std::string& datagram : reception.datagrams)
        SendTo(kPort, datagram);
      std::vector<int> types;
      EXPECT_EQ(ReceiveFailure(socket, types), reception.failure);
      EXPECT_EQ(types, reception.types);
      EXPECT_EQ(socket.descriptor() == 0, !reception.failure.empty());
    }
  });
}

TEST_F(Netlink, InterruptedReceptionGoesOn) {
  Run("", [] {
    libnetif_socket socket;
    Bind(socket, kPort);
    struct sigaction action {};
    action.sa_handler = InterruptTwiceThenSend;
    ::sigaction(SIGALRM, &action, nullptr);
    const itimerval soon{.it_interval = {0, 20000}, .it_value = {0, 20000}};
    ::setitimer(ITIMER_REAL, &soon, nullptr);
    std::vector<int> types;
    EXPECT_EQ(ReceiveFailure(socket, types), "");
    ::setitimer(ITIMER_REAL, nullptr, nullptr);
  });
}

TEST_F(Netlink, FailedCallsCloseTheSocketAndCarryTheirText) {
  Run("", [] {
    const size_t before = CountDescriptors();
    libnetif_socket owner;
    Bind(owner, kPort);
    libnetif_socket socket;
    EXPECT_EQ(socket.descriptor(), -1);
    EXPECT_EQ(FailureOf([&] { Bind(socket, kPort); }),
              "Binding for test failed.\nError message: Address already in use");
    EXPECT_EQ(socket.descriptor(), 0);
    socket.create_netlink_socket();
    EXPECT_EQ(FailureOf([&] { socket.send_netlink_message(64 << 20, RTM_GETLINK, "test"); }),
              "Request for test failed.\nError message: Message too long");
    EXPECT_EQ(socket.descriptor(), 0);
    std::vector<int> types;
    EXPECT_EQ(ReceiveFailure(socket, types), "Receiving test failed.\nError message: Bad file descriptor");
    EXPECT_EQ(FailureOf([&] { socket.create_socket_descriptor(AF_NETLINK, SOCK_DGRAM, 99); }),
              "Socket creation error.\nError message: Protocol not supported");
    owner.close_socket_descriptor();
    EXPECT_EQ(owner.descriptor(), 0);
    EXPECT_EQ(CountDescriptors(), before);
  });
}

TEST_F(Netlink, RequestIsAZeroedDumpRequest) {
  Run("", [] {
    libnetif_socket socket;
    Bind(socket, kPort);
    sockaddr_nl self{};
    self.nl_family = AF_NETLINK;
    self.nl_pid = kPort;
    ASSERT_EQ(::connect(socket.descriptor(), reinterpret_cast<const sockaddr*>(&self), sizeof self), 0);
    socket.send_netlink_message(12, RTM_GETROUTE, "test");
    std::array<std::byte, 64> buffer;
    ASSERT_EQ(socket.receive_datagram(buffer), 28);
    const nlmsghdr expected{.nlmsg_len = 28,
                            .nlmsg_type = 26,
                            .nlmsg_flags = 0x0101,
                            .nlmsg_seq = 0,
                            .nlmsg_pid = static_cast<uint32_t>(::getpid())};
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()), 28), Bytes(expected) + std::string(12, '\0'));
  });
}

TEST(NetlinkParsers, RouteIsReadUpToTheFirstBadAttribute) {
  rtmsg header{};
  header.rtm_family = AF_INET;
  header.rtm_dst_len = 24;
  header.rtm_table = RT_TABLE_MAIN;
  const std::string head = Bytes(header);
  const std::string all = head + Attribute(RTA_TABLE, Bytes(254)) + Attribute(RTA_DST, Bytes(0x0001140A)) +
                          Attribute(RTA_PREFSRC, Bytes(7)) + Attribute(RTA_PRIORITY, Bytes(9)) +
                          Attribute(RTA_GATEWAY, Bytes(8)) + Attribute(RTA_OIF, Bytes(5));
  const ipv4_routing_entry whole{7, 0x0001140A, 0x00FFFFFF, 8, 9, ""};
  ipv4_routing_entry entry;
  int index = -1;
  EXPECT_TRUE(parse_ipv4_route({RTM_NEWROUTE, Span(all)}, entry, index));
  EXPECT_EQ(entry, whole);
  EXPECT_EQ(index, 5);
  for (size_t cut = 0; cut < all.size(); ++cut) {
    entry = unchangedEntry;
    const std::string bytes = all.substr(0, cut);
    ASSERT_EQ(parse_ipv4_route({RTM_NEWROUTE, Span(bytes)}, entry, index), cut >= sizeof(rtmsg));
    EXPECT_EQ(entry.interface_name, cut >= sizeof(rtmsg) ? "" : "unchanged");
    EXPECT_EQ(index, cut >= sizeof(rtmsg) ? 0 : 5);
  }
  const std::string stopped =
      head + Attribute(RTA_DST, "ab") + Bytes(rtattr{3, RTA_OIF}) + Attribute(RTA_OIF, Bytes(5));
  EXPECT_TRUE(parse_ipv4_route({RTM_NEWROUTE, Span(stopped)}, entry, index));
  EXPECT_EQ(entry.destination, 0U);
  EXPECT_EQ(index, 0);
  const std::vector<std::pair<int, uint32_t>> masks{
      {0, 0}, {1, 1}, {31, 0x7FFFFFFF}, {32, UINT32_MAX}, {255, UINT32_MAX}};
  for (const auto& [length, mask] : masks) {
    header.rtm_dst_len = static_cast<unsigned char>(length);
    EXPECT_TRUE(parse_ipv4_route({RTM_NEWROUTE, Span(Bytes(header))}, entry, index));
    EXPECT_EQ(entry.netmask, mask);
  }
  header.rtm_table = RT_TABLE_LOCAL;
  EXPECT_FALSE(parse_ipv4_route({RTM_NEWROUTE, Span(Bytes(header))}, entry, index));
}

TEST(NetlinkParsers, StatisticsNeedTheirInterfaceAndWholeCounters) {
  ifinfomsg header{};
  header.ifi_index = 3;
  const std::string counters = Bytes(1U) + Bytes(2U) + Bytes(3U) + Bytes(UINT32_MAX);
  const std::string good = Bytes(header) + Attribute(IFLA_IFNAME, "v0") + Attribute(IFLA_STATS, counters);
  const std::string cut = Bytes(header) + Attribute(IFLA_STATS, counters.substr(4));
  const network_statistics untouched{9, 9, 9, 9};
  network_statistics statistics = untouched;
  EXPECT_FALSE(parse_link_statistics({RTM_NEWLINK, Span(good)}, 4, statistics));
  EXPECT_FALSE(parse_link_statistics({RTM_NEWADDR, Span(good)}, 3, statistics));
  EXPECT_FALSE(parse_link_statistics({RTM_NEWLINK, Span(cut)}, 3, statistics));
  EXPECT_EQ(statistics, untouched);
  EXPECT_TRUE(parse_link_statistics({RTM_NEWLINK, Span(good)}, 3, statistics));
  EXPECT_EQ(statistics, (network_statistics{UINT32_MAX, 3, 2, 1}));
}

TEST(NetlinkParsers, ChangesAreFilteredByType) {
  using enum interface_change_event_type;
  ifinfomsg link{};
  link.ifi_index = 3;
  ifaddrmsg address{};
  address.ifa_index = 4;
  const std::string linkBytes = Bytes(link) + Attribute(IFLA_IFNAME, std::string("v0\0", 3));
  const std::string addressBytes = Bytes(address) + Attribute(IFA_LABEL, "v1:second");
  interface_change change;
  EXPECT_FALSE(parse_interface_change({RTM_NEWLINK, Span(linkBytes)}, ipv4_address_changes, change));
  EXPECT_FALSE(parse_interface_change({RTM_DELADDR, Span(addressBytes)}, link_changes, change));
  EXPECT_FALSE(parse_interface_change({RTM_NEWROUTE, Span(linkBytes)}, link_changes | ipv4_address_changes, change));
  EXPECT_FALSE(parse_interface_change({RTM_NEWLINK, Span(linkBytes).first(15)}, link_changes, change));
  EXPECT_TRUE(parse_interface_change({RTM_DELLINK, Span(linkBytes)}, link_changes | ipv4_address_changes, change));
  EXPECT_EQ(change.interface_index, 3);
  EXPECT_EQ(change.name, "v0");
  EXPECT_TRUE(parse_interface_change({RTM_NEWADDR, Span(addressBytes)}, ipv4_address_changes, change));
  EXPECT_EQ(change.interface_index, 4);
  EXPECT_EQ(change.name, "v1");
}
