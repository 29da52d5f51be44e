#include "netif/host_ip_address.h"

#include <linux/sockios.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>

#include "netif/private_network.h"
#include "support/fake_ioctl.h"
#include "support/trace_capture.h"

namespace {

// lo, v1 and v0 in this order
constexpr const char* kNetwork =
    "link add v0 type veth peer name v1\n"
    "link set lo up\n"
    "addr add 192.168.7.20/24 dev v0\n"
    "addr add 1.2.3.4/24 dev v1\n"
    "addr add fd00::7/64 dev v0 nodad\n"
    "link set v0 up\n";

using Lines = std::vector<std::string>;

const std::string kV4 = "CHostIPAddress::GetHostIPv4Address: ";
const std::string kV6 = "CHostIPAddress::GetHostIPv6Address: ";

}  // namespace

using HostIPAddress = PrivateNetwork;

TEST_F(HostIPAddress, PicksAmongTheEthernetInterfacesThatHaveOne) {
  Run(kNetwork, [] {
    const TraceCapture trace(4);
    EXPECT_EQ(CHostIPAddress::GetHostIPAddress(1, CHostIPAddress::ipv4), "192.168.7.20");
    EXPECT_EQ(trace.Lines(),
              (Lines{kV4 + "INFO: number of network interfaces = 3. Input index: 1.",
                     kV4 + "INFO: interface  0 (lo) is ignored (not Ethernet interface). Interface type 772",
                     kV4 + "INFO: IP V4 192.168.7.20 for interface 2 (v0) will be returned. Requested index: 1"}));
    EXPECT_EQ(CHostIPAddress::GetHostIPAddress(2, CHostIPAddress::ipv4), "");
    EXPECT_EQ(CHostIPAddress::GetHostIPAddress(-1, CHostIPAddress::ipv4), "");

    Ip("addr flush dev v1");
    EXPECT_EQ(CHostIPAddress::GetHostIPAddress(0, CHostIPAddress::ipv4), "192.168.7.20");
    EXPECT_TRUE(trace.Has(kV4 + "INFO: Interface 1 (v1) does not have IP V4."));
    EXPECT_EQ(CHostIPAddress::GetHostIPAddress(0, CHostIPAddress::ipv6), "fd00::7");
    EXPECT_TRUE(trace.Has(kV6 + "INFO: Interface 1 (v1) does not have IP V6."));
    EXPECT_TRUE(trace.Has(kV6 + "INFO: IP V6 fd00::7 for interface 2 (v0) will be returned. Requested index: 0"));
    EXPECT_EQ(CHostIPAddress::GetHostIPAddress(5, CHostIPAddress::ipv4), "");
    EXPECT_TRUE(trace.Has(kV4 +
                          "INFO: number of network interfaces = 3 is smaller than input index 5. IP V4 will not be "
                          "returned."));
  });
}

TEST_F(HostIPAddress, BytesAreFilledFromTheText) {
  Run(kNetwork, [] {
    CIPAddress address({9});
    EXPECT_TRUE(CHostIPAddress::GetHostIPv4Address(address, 0));
    EXPECT_EQ(address, CIPAddress({9})) << "1.2.3.4 is too short a text";
    EXPECT_TRUE(CHostIPAddress::GetHostIPv4Address(address, 1));
    EXPECT_EQ(address, CIPAddress({192, 168, 7, 20}));
    EXPECT_FALSE(CHostIPAddress::GetHostIPv4Address(address, 2));
    EXPECT_TRUE(CHostIPAddress::GetHostIPv6Address(address, 0));
    EXPECT_EQ(address, CIPAddress({0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7}));
    EXPECT_FALSE(CHostIPAddress::GetHostIPv6Address(address, 1));
  });
}

TEST_F(HostIPAddress, FailuresAreTracedAndGiveNothing) {
  Run(kNetwork, [] {
    const TraceCapture trace(1);
    {
      const FakeIoctl broken([](const std::string&, unsigned long request, void*) -> std::optional<int> {
        return request == SIOCGIFHWADDR ? std::optional<int>(-EIO) : std::nullopt;
      });
      EXPECT_EQ(CHostIPAddress::GetHostIPAddress(0, CHostIPAddress::ipv6), "");
    }
    EXPECT_EQ(trace.Lines(), Lines{kV6 + "ERROR: Cannot get IP address. General error."});
    rlimit none{};
    ::getrlimit(RLIMIT_NOFILE, &none);
    const rlim_t before = std::exchange(none.rlim_cur, 3);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_EQ(CHostIPAddress::GetHostIPAddress(0, CHostIPAddress::ipv4), "");
    none.rlim_cur = before;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_TRUE(trace.Has(kV4 +
                          "ERROR: Cannot get information about network interfaces! Error message: Socket creation "
                          "error."));
    EXPECT_TRUE(trace.Has("Error message: Too many open files"));
  });
}
