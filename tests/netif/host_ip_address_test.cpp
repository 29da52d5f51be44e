#include "netif/host_ip_address.h"

#include "netif/private_network.h"
#include "support/trace_capture.h"

using HostIPAddress = PrivateNetwork;

static const char* const kLines[] = {
    "v4Address: INFO: number of network interfaces = 4. Input index: 4.",
    "v4Address: INFO: number of network interfaces = 4 is smaller than input index 4. IP V4 will not be returned.",
    "v6Address: INFO: interface  0 (lo) is ignored (not Ethernet interface). Interface type 772",
    "v4Address: INFO: IP V4 192.168.7.20 for interface 2 (v0) will be returned. Requested index: 1",
    "v6Address: INFO: Interface 1 (v1) does not have IP V6.",
    "v4Address: INFO: Interface 1 (v1) does not have IP V4.",
    "v6Address: ERROR: Cannot get IP address. General error.",
    "v4Address: ERROR: Cannot get information about network interfaces! Error message: Retriving interface info",
};

TEST_F(HostIPAddress, PicksAmongEthernetInterfacesAndTracesWhy) {
  Run([] {
    const TraceCapture trace(4);
    CIPAddress address({9});
    EXPECT_TRUE(CHostIPAddress::GetHostIPv4Address(address, 0));
    EXPECT_EQ(address, CIPAddress({9})) << "1.2.3.4 is too short a text";
    EXPECT_TRUE(CHostIPAddress::GetHostIPv4Address(address, 1));
    EXPECT_EQ(address, CIPAddress({192, 168, 7, 20}));
    EXPECT_TRUE(CHostIPAddress::GetHostIPv6Address(address, 0));
    EXPECT_EQ(address, CIPAddress({0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7}));
    EXPECT_FALSE(CHostIPAddress::GetHostIPv6Address(address, 1));
    Ip("addr flush dev v1");
    EXPECT_EQ(CHostIPAddress::GetHostIPAddress(0, CHostIPAddress::ipv4), "192.168.7.20");
    EXPECT_EQ(CHostIPAddress::GetHostIPAddress(-1, CHostIPAddress::ipv4), "");
    EXPECT_EQ(CHostIPAddress::GetHostIPAddress(4, CHostIPAddress::ipv4), "");
    const FakeIoctl broken([](const std::string&, unsigned long, void*) { return -EIO; });
    EXPECT_FALSE(CHostIPAddress::GetHostIPv6Address(address, 0));
    refuseNameIndex = true;
    EXPECT_FALSE(CHostIPAddress::GetHostIPv4Address(address, 0));
    for (const std::string line : kLines)
      EXPECT_GE(trace.Count("CHostIPAddress::GetHostIP" + line), 1) << line;
  });
}
