#include "netif/network_interface.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "netif/network_interface_manager.h"
#include "netif/private_network.h"
#include "netif/routing_table_manager.h"
#include "platform/unique_fd.h"
#include "support/fake_ioctl.h"

using namespace libnetif;

namespace {

bool refuseNameIndex = false;

constexpr const char* kNetwork =
    "link add v0 type veth peer name v1\n"
    "link add br0 type bridge\n"
    "link set v0 mtu 1400 multicast off\n"
    "addr add 192.168.7.20/20 brd + dev v0\n"
    "addr add fd00::7/64 dev v0 nodad\n"
    "addr add 10.1.2.3/8 brd + dev v1\n"
    "link set lo up\n"
    "link set v0 up\n"
    "link set v1 up\n";

std::string Dotted(uint32_t address) {
  char text[INET_ADDRSTRLEN] = {};
  ::inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

std::string Text(const ipv6_address& address) {
  char text[INET6_ADDRSTRLEN] = {};
  ::inet_ntop(AF_INET6, address.data(), text, sizeof text);
  return text;
}

std::string Text(uint64_t mac) {
  char text[32];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", static_cast<unsigned>(mac & 0xFF),
                static_cast<unsigned>(mac >> 8 & 0xFF), static_cast<unsigned>(mac >> 16 & 0xFF),
                static_cast<unsigned>(mac >> 24 & 0xFF), static_cast<unsigned>(mac >> 32 & 0xFF),
                static_cast<unsigned>(mac >> 40));
  return text;
}

std::vector<std::string> Names(const std::vector<network_interface>& interfaces) {
  std::vector<std::string> names;
  for (const network_interface& interface : interfaces)
    names.push_back(interface.get_name());
  return names;
}

// Sends datagrams to the discard port of the loopback interface.
void SendToLoopback(int count) {
  const UniqueFd sender(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(9);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (int i = 0; i < count; ++i)
    ::sendto(sender.Get(), "12345", 5, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

struct NamedOperation {
  const char* name;
  std::function<void(const network_interface&)> call;
  std::string failure;  // for an interface that does not exist, without the system's text; "" where it is no failure
};

std::vector<NamedOperation> Operations() {
  using Interface = const network_interface&;
  const std::string ether = "Retriving interface ether address failed.";
  return {
      {"flags", [](Interface i) { i.get_flags(); }, "Retriving interface flags failed."},
      {"up", [](Interface i) { i.is_up(); }, "Retriving interface flags failed."},
      {"mtu", [](Interface i) { i.get_mtu(); }, "Retriving interface mtu failed."},
      {"index", [](Interface i) { i.get_ipv4_index(); }, "Retriving interface ipv4 index failed."},
      {"address", [](Interface i) { i.get_ipv4_address(); }, "Retriving interface ipv4 address failed."},
      {"netmask", [](Interface i) { i.get_ipv4_netmask(); }, "Retriving interface ipv4 netmask failed."},
      {"broadcast", [](Interface i) { i.get_ipv4_broadcast(); }, "Retriving interface ipv4 broadcast failed."},
      {"ether", [](Interface i) { i.get_ether_address(); }, ether},
      {"infiniband", [](Interface i) { i.get_infiniband_address(); }, "Retriving interface infiniband address failed."},
      {"type", [](Interface i) { i.get_hardware_type(); }, ether},
      {"speed", [](Interface i) { i.get_max_speed(); }, "Retriving interface max speed failed."},
      {"statistics", [](Interface i) { i.get_network_statistics(); }, "Retriving interface ipv4 index failed."},
      {"ipv6 address", [](Interface i) { i.get_ipv6_address(); }, ""},
      {"ipv6 netmask", [](Interface i) { i.get_ipv6_netmask(); }, ""},
  };
}

std::optional<int> AnswerAsInfiniband(const std::string&, unsigned long request, void* argument) {
  if (request != SIOCGIFHWADDR) return std::nullopt;
  static_cast<ifreq*>(argument)->ifr_hwaddr.sa_family = ARPHRD_INFINIBAND;
  return 0;
}

}  // namespace

// Stands in for the system's, so that a test can have it fail.
extern "C" struct if_nameindex* if_nameindex() noexcept {
  if (refuseNameIndex) {
    errno = ENOBUFS;
    return nullptr;
  }
  return reinterpret_cast<struct if_nameindex* (*)()>(::dlsym(RTLD_NEXT, "if_nameindex"))();
}

using NetworkInterface = PrivateNetwork;

TEST_F(NetworkInterface, PropertiesAgreeWithTheIpCommand) {
  Run(kNetwork, [] {
    for (const network_interface& interface : network_interface_manager().get_network_interfaces()) {
      const std::string name = interface.get_name();
      SCOPED_TRACE(name);
      const std::string link = Ip("-j link show dev " + name);
      EXPECT_EQ(std::to_string(interface.get_mtu()), JsonField(link, "mtu"));
      EXPECT_EQ(std::to_string(interface.get_ipv4_index()), JsonField(link, "ifindex"));
      EXPECT_EQ(network_interface_manager().get_network_interface_name_by_ipv4_index(interface.get_ipv4_index()), name);
      const auto hasFlag = [&link](const char* flag) { return link.find(flag) != std::string::npos; };
      EXPECT_EQ(interface.is_up(), hasFlag("\"UP\""));
      EXPECT_EQ(interface.is_running(), hasFlag("\"LOWER_UP\""));
      EXPECT_EQ(interface.is_loopback(), hasFlag("\"LOOPBACK\""));
      EXPECT_EQ(interface.is_broadcast_set(), hasFlag("\"BROADCAST\""));
      EXPECT_EQ(interface.is_multicast_support(), hasFlag("\"MULTICAST\""));
      EXPECT_EQ(interface.get_flag(IFF_UP | IFF_LOOPBACK), hasFlag("\"UP\"") || hasFlag("\"LOOPBACK\""));
      const bool isEther = JsonField(link, "link_type") == "ether";
      EXPECT_EQ(interface.get_hardware_type(),
                isEther ? interface_hardware_type::ethernet : interface_hardware_type::loopback);
      if (isEther) {
        EXPECT_EQ(Text(interface.get_ether_address()), JsonField(link, "address"));
      } else {
        EXPECT_EQ(FailureOf([&] { interface.get_ether_address(); }),
                  "This interface doesn't contain ether hardrware address.");
        EXPECT_EQ(interface.get_max_speed(), -1);
      }
      EXPECT_EQ(FailureOf([&] { interface.get_infiniband_address(); }),
                "This interface doesn't contain infiniband hardrware address.");

      const std::string ipv4 = JsonField(Ip("-j -4 addr show dev " + name), "local");
      if (ipv4.empty()) {
        EXPECT_EQ(FailureOf([&] { interface.get_ipv4_address(); }),
                  "Retriving interface ipv4 address failed.\nError message: Cannot assign requested address");
      } else {
        EXPECT_EQ(Dotted(interface.get_ipv4_address()), ipv4);
      }
      const std::string ipv6 = JsonField(Ip("-j -6 addr show dev " + name), "local");
      EXPECT_EQ(Text(interface.get_ipv6_address()), ipv6.empty() ? "::" : ipv6);
    }
    const network_interface v0("v0");
    EXPECT_EQ(Dotted(v0.get_ipv4_netmask()), "255.255.240.0");
    EXPECT_EQ(Dotted(v0.get_ipv4_broadcast()), "192.168.15.255");
    EXPECT_EQ(Text(v0.get_ipv6_netmask()), "ffff:ffff:ffff:ffff::");
    EXPECT_EQ(v0.get_max_speed(), 10000);
  });
}

TEST_F(NetworkInterface, StatisticsAgreeWithTheIpCommand) {
  Run("link set lo up\n", [] {
    SendToLoopback(300);
    const network_statistics found = network_interface("lo").get_network_statistics();
    const std::string counters = Ip("-j -s link show dev lo");
    const std::string rx = counters.substr(counters.find("\"rx\""));
    const std::string tx = counters.substr(counters.find("\"tx\""));
    EXPECT_GE(found.tx_packets, 300U);
    EXPECT_EQ(std::to_string(found.tx_bytes), JsonField(tx, "bytes"));
    EXPECT_EQ(std::to_string(found.rx_bytes), JsonField(rx, "bytes"));
    EXPECT_EQ(std::to_string(found.tx_packets), JsonField(tx, "packets"));
    EXPECT_EQ(std::to_string(found.rx_packets), JsonField(rx, "packets"));
  });
}

TEST_F(NetworkInterface, EveryFailureCarriesItsTextAndLeavesNoDescriptor) {
  Run(kNetwork, [] {
    const size_t before = CountDescriptors();
    for (const NamedOperation& operation : Operations()) {
      SCOPED_TRACE(operation.name);
      FailureOf([&] { operation.call(network_interface("v0")); });
      EXPECT_EQ(FailureOf([&] { operation.call(network_interface("gone")); }),
                operation.failure.empty() ? "" : operation.failure + "\nError message: No such device");
      EXPECT_EQ(CountDescriptors(), before);
    }
    EXPECT_EQ(FailureOf([] { network_interface_manager().get_network_interface_name_by_ipv4_index(999); }),
              "Retriving interface name by index failed.\nError message: No such device");
    EXPECT_EQ(CountDescriptors(), before);

    const rlimit none{.rlim_cur = 3, .rlim_max = 3};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    for (const NamedOperation& operation : Operations()) {
      EXPECT_EQ(FailureOf([&] { operation.call(network_interface("v0")); }),
                std::string(operation.failure.empty() ? "Retriving interface ipv6 address failed."
                                                      : "Socket creation error.") +
                    "\nError message: Too many open files")
          << operation.name;
    }
    EXPECT_EQ(FailureOf([] { network_interface_manager().get_network_interfaces(); }),
              "Socket creation error.\nError message: Too many open files");
  });
}

TEST_F(NetworkInterface, DescriptorZeroIsClosedLikeAnyOther) {
  Run("", [] {
    ::close(STDIN_FILENO);
    const size_t before = CountDescriptors();
    EXPECT_EQ(network_interface("lo").get_mtu(), 65536);
    EXPECT_NE(FailureOf([] { network_interface("gone").get_mtu(); }), "");
    EXPECT_EQ(CountDescriptors(), before);
  });
}

TEST_F(NetworkInterface, LongNamesAreCutToTheKernelsLimit) {
  Run("link add fifteen-letters mtu 1234 type bridge\n", [] {
    EXPECT_EQ(network_interface("fifteen-letters").get_mtu(), 1234);
    EXPECT_EQ(network_interface("fifteen-letters-and-many-more-of-them").get_mtu(), 1234);
  });
}

TEST_F(NetworkInterface, InfinibandAddressComesFromItsFile) {
  const std::string good = "80:00:02:08:fe:80:00:00:00:00:00:00:00:02:c9:03:00:0e:0a:F1";
  root.WriteFile("/sys/class/net/ib0/address", good + "\n");
  root.WriteFile("/sys/class/net/ib1/address", good.substr(3));
  Run("", [] {
    const FakeIoctl infiniband(AnswerAsInfiniband);
    const infiniband_address expected{0x80, 0, 2, 8, 0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 2, 0xC9, 3, 0, 0x0E, 0x0A, 0xF1};
    EXPECT_EQ(network_interface("ib0").get_infiniband_address(), expected);
    EXPECT_EQ(network_interface("ib0").get_hardware_type(), interface_hardware_type::infiniband);
    const std::string failure = "Retriving interface infiniband address failed.\nError message: ";
    EXPECT_EQ(FailureOf([] { network_interface("ib1").get_infiniband_address(); }), failure + "Bad message");
    EXPECT_EQ(FailureOf([] { network_interface("ib2").get_infiniband_address(); }),
              failure + "No such file or directory");
  });
  infiniband_address address{};
  for (const std::string& bad : {std::string(), good + ":00", good + ":", good.substr(0, 56), "x" + good.substr(1),
                                 "100" + good.substr(2), "-" + good, good.substr(0, 57) + "  "}) {
    EXPECT_FALSE(parse_infiniband_address(bad, address)) << bad;
  }
}

TEST_F(NetworkInterface, DriverAnswersAreReadAsTheyStand) {
  Run("", [] {
    int speedFailure = 0;
    const FakeIoctl driver([&](const std::string&, unsigned long request, void* argument) -> std::optional<int> {
      auto* answer = static_cast<ifreq*>(argument);
      if (request == SIOCGIFADDR) answer->ifr_addr.sa_family = AF_UNSPEC;
      if (request == SIOCGIFHWADDR) answer->ifr_hwaddr.sa_family = ARPHRD_PPP;
      if (request == SIOCETHTOOL) {
        if (speedFailure != 0) return -speedFailure;
        auto* settings = reinterpret_cast<ethtool_cmd*>(answer->ifr_data);
        EXPECT_EQ(settings->cmd, 1U);
        settings->speed_hi = 1;
        settings->speed = 0x86A0;
      }
      return 0;
    });
    const network_interface interface("x0");
    EXPECT_EQ(interface.get_hardware_type(), interface_hardware_type::unknown);
    EXPECT_EQ(FailureOf([&] { interface.get_ipv4_address(); }), "This interface doesn't contain ipv4 address.");
    EXPECT_EQ(interface.get_max_speed(), 100000);
    speedFailure = EPERM;
    EXPECT_EQ(FailureOf([&] { interface.get_max_speed(); }),
              "Retriving interface max speed failed.\nError message: Operation not permitted");
    speedFailure = EOPNOTSUPP;
    EXPECT_EQ(interface.get_max_speed(), -1);
  });
}

TEST_F(NetworkInterface, ListHoldsEveryInterfaceOrElseEveryIpv4Address) {
  Run(kNetwork, [] {
    const network_interface_manager manager;
    std::vector<std::string> links;
    for (const std::string& link : JsonObjects(Ip("-j link")))
      links.push_back(JsonField(link, "ifname"));
    EXPECT_EQ(Names(manager.get_network_interfaces()), links);
    refuseNameIndex = true;
    EXPECT_EQ(Names(manager.get_network_interfaces()), (std::vector<std::string>{"lo", "v1", "v0"}));
    std::string more;
    for (int i = 0; i < 27; ++i)  // thirty records: the third request is filled to its end as well
      more += "addr add 172.16.0." + std::to_string(i + 1) + "/32 dev br0\n";
    IpBatch(more);
    EXPECT_EQ(manager.get_network_interfaces().size(), 30U);
  });
}

TEST_F(NetworkInterface, RoutesAgreeWithTheIpCommand) {
  const std::string routes =
      "route add default via 192.168.0.1 dev v0 metric 77\n"
      "route add 172.20.1.0/24 via 10.0.0.9 src 10.1.2.3\n"
      "route add 172.21.0.0/16 dev v1\n"
      "route add 172.22.0.1/32 dev v0\n"
      "route add blackhole 10.9.0.0/16\n"
      "route add 172.23.0.0/16 nexthop via 10.0.0.9 nexthop via 192.168.0.1\n"
      "route add 1.1.1.0/24 dev v0 table 99\n"
      "route add fd01::/64 dev v0\n";
  Run(kNetwork + routes, [] {
    const size_t before = CountDescriptors();
    const auto found = routing_table_manager().get_ipv4_routing_entries();
    EXPECT_EQ(CountDescriptors(), before);
    const auto expected =
        JsonObjects(Ip("-j -4 route show table main | sed 's/,\"flags\":\\[\\]//g; s/,\"nexthops\":\\[[^]]*\\]//'"));
    ASSERT_GE(found.size(), 8U);
    for (const ipv4_routing_entry& entry : found) {
      const int length = __builtin_popcount(entry.netmask);
      EXPECT_EQ(entry.netmask, length == 32 ? UINT32_MAX : (1U << length) - 1);
      std::string destination = Dotted(entry.destination);
      if (length < 32) destination += "/" + std::to_string(length);
      if (length == 0) destination = "default";
      const auto orNone = [](uint32_t address) { return address == 0 ? "" : Dotted(address); };
      const auto isSame = [&](const std::string& json) {
        return JsonField(json, "dst") == destination && JsonField(json, "gateway") == orNone(entry.gateway) &&
               JsonField(json, "prefsrc") == orNone(entry.source) && JsonField(json, "dev") == entry.interface_name &&
               JsonField(json, "metric") == (entry.metric == 0 ? "" : std::to_string(entry.metric));
      };
      EXPECT_EQ(std::count_if(expected.begin(), expected.end(), isSame), 1) << destination << entry.interface_name;
    }
  });
}

TEST_F(NetworkInterface, InterfacesMayComeAndGoWhileTheyAreListed) {
  Run(kNetwork, [] {
    std::string churn;
    for (int i = 0; i < 60; ++i) {
      churn +=
          "link add c0 type veth peer name c1\naddr add 10.200.0.1/24 dev c0\nlink set c0 up\nlink set c1 up\n"
          "link set c0 down\nlink set c0 name c2\nlink del c2\n";
    }
    std::atomic<bool> stop = false;
    const size_t before = CountDescriptors();
    std::thread reader([&stop] {
      while (!stop) {
        for (const network_interface& interface : network_interface_manager().get_network_interfaces()) {
          for (const NamedOperation& operation : Operations())
            FailureOf([&] { operation.call(interface); });
        }
        FailureOf([] { routing_table_manager().get_ipv4_routing_entries(); });
      }
    });
    IpBatch(churn);
    stop = true;
    reader.join();
    EXPECT_EQ(CountDescriptors(), before);
    EXPECT_EQ(network_interface_manager().get_network_interfaces().size(), 4U);
  });
}
