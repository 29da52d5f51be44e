#include <arpa/inet.h>
#include <dlfcn.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>

#include "netif/host_ip_address.h"
#include "netif/kernel_answers.h"
#include "netif/network_interface_manager.h"
#include "netif/private_network.h"
#include "netif/routing_table_manager.h"

using namespace libnetif;

namespace {

template <typename T>
std::string Text(const T& address) {
  char text[INET6_ADDRSTRLEN] = {};
  return ::inet_ntop(sizeof(T) == 4 ? AF_INET : AF_INET6, &address, text, sizeof text);
}

// As the ip command prints it, without what the library does not tell; so is a route.
std::string Text(const network_interface& interface) {
  return std::to_string(interface.get_ipv4_index()) + ": " + interface.get_name() + ": <" +
         (interface.is_loopback() ? "LOOPBACK," : "") + (interface.is_broadcast_set() ? "BROADCAST," : "") +
         (interface.is_multicast_support() ? "MULTICAST," : "") + (interface.is_up() ? "UP," : "") +
         (interface.is_running() ? "LOWER_UP," : "") + "> mtu " + std::to_string(interface.get_mtu()) + "\n";
}

std::string Text(const ipv4_routing_entry& route) {
  const int length = __builtin_popcount(route.netmask);
  return (length == 0 ? "default" : Text(route.destination)) + (length % 32 ? "/" + std::to_string(length) : "") +
         (route.gateway ? " via " + Text(route.gateway) : "") +
         (route.interface_name.empty() ? "" : " dev " + route.interface_name) +
         (route.source ? " src " + Text(route.source) : "") +
         (route.metric ? " metric " + std::to_string(route.metric) : "") + "\n";
}

template <typename T>
std::string Texts(const std::vector<T>& list) {
  std::string text;
  for (const T& element : list)
    text += Text(element);
  return text;
}

const std::pair<std::string, std::function<void(const network_interface&)>> kOperations[] = {
    {"Retriving interface flags failed.", &network_interface::get_flags},
    {"Retriving interface mtu failed.", &network_interface::get_mtu},
    {"Retriving interface ipv4 index failed.", &network_interface::get_network_statistics},
    {"Retriving interface ipv4 address failed.", &network_interface::get_ipv4_address},
    {"Retriving interface ipv4 netmask failed.", &network_interface::get_ipv4_netmask},
    {"Retriving interface ipv4 broadcast failed.", &network_interface::get_ipv4_broadcast},
    {"Retriving interface ether address failed.", &network_interface::get_ether_address},
    {"Retriving interface ether address failed.", &network_interface::get_hardware_type},
    {"Retriving interface infiniband address failed.", &network_interface::get_infiniband_address},
    {"Retriving interface max speed failed.", &network_interface::get_max_speed},
};

}  // namespace

bool refuseNameIndex = false;
static int interruptedDumps = 0;  // how many datagrams the kernel marks as part of an interrupted dump

extern "C" struct if_nameindex* if_nameindex() noexcept {
  return refuseNameIndex ? nullptr : reinterpret_cast<decltype(&if_nameindex)>(::dlsym(RTLD_NEXT, "if_nameindex"))();
}

extern "C" ssize_t recv(int fd, void* buffer, size_t size, int flags) {
  const ssize_t received = ::recvfrom(fd, buffer, size, flags, nullptr, nullptr);
  if ((flags & MSG_PEEK) == 0 && interruptedDumps-- > 0) static_cast<nlmsghdr*>(buffer)->nlmsg_flags |= NLM_F_DUMP_INTR;
  return received;
}

using NetworkInterface = PrivateNetwork;

TEST_F(NetworkInterface, PropertiesAgreeWithTheIpCommand) {
  Run([] {
    EXPECT_EQ(Texts(network_interface_manager().get_network_interfaces()),
              Ip("-o link | sed -E 's/@[^:]*//; s/>/,>/; s/(NO-CARRIER|M-DOWN),//g; s/ qdisc.*//'"));
    const network_interface v0("v0"), lo("lo");
    EXPECT_EQ(v0.get_ether_address(), 0x3020105E0002U);
    EXPECT_EQ(Texts(std::vector{v0.get_ipv4_address(), v0.get_ipv4_netmask(), v0.get_ipv4_broadcast()}),
              "192.168.7.20255.255.240.0192.168.15.255");
    EXPECT_EQ(Texts(std::vector{v0.get_ipv6_address(), v0.get_ipv6_netmask(),
                                network_interface("fifteen-letters").get_ipv6_address()}),
              "fd00::7ffff:ffff:ffff:ffff::::");
    EXPECT_EQ(std::pair(v0.get_max_speed(), lo.get_max_speed()), std::pair(10000, -1));
    EXPECT_EQ(lo.get_hardware_type(), interface_hardware_type::loopback);
    EXPECT_EQ(FailureOf([&] { lo.get_ether_address(); }), "This interface doesn't contain ether hardrware address.");

    EXPECT_EQ(std::system("bash -c 'echo 12345 >/dev/udp/127.0.0.1/9'"), 0);
    const network_statistics counted = lo.get_network_statistics();
    EXPECT_GT(counted.rx_bytes, counted.rx_packets);
    EXPECT_EQ(std::to_string(counted.tx_bytes) + " " + std::to_string(counted.tx_packets) + "\n",
              Ip("-s link show dev lo | sed -n '$s/^ *\\([0-9]*\\) *\\( [0-9]*\\).*/\\1\\2/p'"));
  });
}

TEST_F(NetworkInterface, FailuresCarryTheirTextAndLeaveNoDescriptorWhileInterfacesComeAndGo) {
  Run([] {
    ::close(STDIN_FILENO);  // a socket may then have the number 0
    const std::ptrdiff_t before = CountDescriptors();
    std::string churn;
    for (int i = 0; i < 50; ++i)
      churn += "link add c0 type bridge\naddr add 10.200.0.1/24 dev c0\nlink set c0 name c1\nlink del c1\n";
    Ip("-batch - &", churn + "link add end type bridge\n");
    do {
      FailureOf([] { Texts(network_interface_manager().get_network_interfaces()); });
      FailureOf([] { routing_table_manager().get_ipv4_routing_entries(); });
      for (const network_interface& none : {network_interface("gone"), network_interface("fifteen-letters-and-more")})
        for (const auto& [failure, call] : kOperations)
          EXPECT_EQ(FailureOf([&, call = call] { call(none); }), failure + "\nError message: No such device");
    } while (!FailureOf([] { network_interface("end").get_network_statistics(); }).empty());
    EXPECT_EQ(FailureOf([] { network_interface_manager().get_network_interface_name_by_ipv4_index(999); }),
              "Retriving interface name by index failed.\nError message: No such device");
    EXPECT_EQ(CountDescriptors(), before);
  });
}

// A cancelled thread must neither take the process along nor leave anything open.
TEST_F(NetworkInterface, AThreadIsCancelledAnywhere) {
  if (kSanitized) GTEST_SKIP() << "the sanitizer's own runtime does not survive a forced unwinding";
  Run([] {
    const std::ptrdiff_t before = CountDescriptors();
    for (int run = 0; run < 400; ++run) {
      std::jthread thread([run] {
        if (run == 0) ::pthread_cancel(::pthread_self());
        for (;; ::pthread_testcancel()) {
          if (run % 2 == 0) Texts(network_interface_manager().get_network_interfaces());
          for (const auto version : {CHostIPAddress::ipv4, CHostIPAddress::ipv6})
            CHostIPAddress::GetHostIPAddress(1, version);
          network_interface("v0").get_network_statistics();
          routing_table_manager().get_ipv4_routing_entries();
        }
      });
      if (run > 0) ::usleep(static_cast<useconds_t>(run));
      ::pthread_cancel(thread.native_handle());
    }
    EXPECT_EQ(CountDescriptors(), before);
  });
}

TEST(NetworkStatistics, CountersAreThoseOfTheLinkOfTheIndex) {
  // The link with its index, then the attribute of the counters.
  const uint32_t words[] = {0, 7, 0, 0, 20 | IFLA_STATS << 16, 1, 2, 3, 4};
  const netlink_message message{RTM_NEWLINK, std::as_bytes(std::span(words))};
  network_statistics found;
  EXPECT_TRUE(!parse_link_statistics(message, 6, found) && parse_link_statistics(message, 7, found));
  EXPECT_EQ(found, (network_statistics{.tx_bytes = 4, .rx_bytes = 3, .tx_packets = 2, .rx_packets = 1}));
}

TEST_F(NetworkInterface, InfinibandAddressComesFromItsFile) {
  const std::string good = "80:00:02:08:fe:80:00:00:00:00:00:00:00:02:c9:03:00:0e:0a:F1";
  root.WriteFile("/sys/class/net/ib0/address", good + "\n");
  Run([] {
    const FakeIoctl driver([](const std::string&, unsigned long request, void* argument) {
      auto* answer = static_cast<ifreq*>(argument);
      if (request == SIOCGIFHWADDR) answer->ifr_hwaddr.sa_family = 32;
      if (request == SIOCETHTOOL) ethtool_cmd_speed_set(reinterpret_cast<ethtool_cmd*>(answer->ifr_data), 200000);
      return 0;
    });
    EXPECT_EQ(network_interface("ib0").get_max_speed(), 200000);
    EXPECT_EQ(network_interface("ib0").get_infiniband_address()[19], 0xF1);
    EXPECT_NE(FailureOf([] { network_interface("ib1").get_infiniband_address(); }), "");
  });
  infiniband_address address{};
  for (const std::string& bad : {good + ":00", good + ":", good.substr(0, 57), "100" + good.substr(2), "-" + good})
    EXPECT_FALSE(parse_infiniband_address(bad, address)) << bad;
}

TEST_F(NetworkInterface, WithoutNameIndexEveryIpv4AddressIsListed) {
  std::string addresses;
  for (int i = 2; i <= 28; ++i)  // thirty in all: the third request is filled to its end as well
    addresses += "addr add 1.2.4." + std::to_string(i) + "/8 dev v1\n";
  refuseNameIndex = true;
  Run([] { EXPECT_EQ(network_interface_manager().get_network_interfaces().size(), 30U); }, addresses);
  refuseNameIndex = false;
}

TEST_F(NetworkInterface, RoutesSurviveAnInterfaceThatVanishesAndChangesMeanwhile) {
  Run([] {
    const auto read = [] { return Texts(routing_table_manager().get_ipv4_routing_entries()); };
    const std::string all = read();
    for (const int interrupted : {1, 1000, 0}) {
      interruptedDumps = interrupted;
      EXPECT_EQ(read(), all) << interrupted;
    }
    const FakeIoctl kernel([](const std::string&, unsigned long request, void*) -> std::optional<int> {
      return request == SIOCGIFNAME ? std::optional(-ENODEV) : std::nullopt;
    });
    EXPECT_EQ(read(), "192.168.0.0/20 src 192.168.7.20\n");
  });
}

TEST_F(NetworkInterface, RoutesAgreeWithTheIpCommand) {
  const auto compare = [] {
    EXPECT_EQ(Texts(routing_table_manager().get_ipv4_routing_entries()),
              Ip("-4 route | sed 's/blackhole //; /nexthop/d; s/ proto kernel//; s/ scope link//; s/ *$//'"));
  };
  Run(compare, R"(link set v1 up
route add default via 192.168.0.1 dev v0 metric 77
route add 172.20.1.0/24 via 1.0.0.9 src 1.2.3.4
route add 172.22.0.1/32 dev v0
route add blackhole 10.9.0.0/16
route add 172.23.0.0/16 nexthop via 1.0.0.9 nexthop via 192.168.0.1
route add 9.1.1.0/24 dev v0 table 99
)");
}
