#include "inventory/adapter_classes.h"
#include "inventory/adapter_driver.h"
#include "inventory/adapter_file.h"
#include "inventory/adapter_mac.h"
#include "inventory/memory_ranges.h"
#include "inventory/server_machine.h"
#include "inventory/system_adapter_list.h"
#include "support/trace_capture.h"

namespace {

// The last one, behind those that the kernel's resource files make up.
CSystemAdapter LastAdapter() {
  std::vector<CSystemAdapter> adapters(1);
  EXPECT_TRUE(CSystemAdapter::ScanPciSystemAdapters(adapters, false));
  return adapters.back();
}

TEST(AdapterClass, FollowsBaseClassSubclassAndVendor) {
  // Base class, subclass and vendor; the name with d for a driver, m for a MAC address.
  // The first row that fits, what no row names, and the vendors.
  std::istringstream rows(R"(
     0  1    0 Display--               0  2    0 Unknown--               1  3    0 Unknown--
     2 80    0 netdm                   4  3    0 Unknown--               a  0    0 Unknown--
     c  3 10df SCSIAdapterd-           c  3    1 USB--                   c  4 19a2 SCSIAdapterd-
     c  4 8086 Unknown--              ff  0    0 Unknown--
  )");
  uint16_t base = 0, sub = 0, vendor = 0;
  for (std::string expected; rows >> std::hex >> base >> sub >> vendor >> expected;) {
    const AdapterClass found = FindAdapterClass(static_cast<uint8_t>(base), static_cast<uint8_t>(sub), vendor);
    EXPECT_EQ(std::string(found.name) + (found.hasDriver ? "d" : "-") + (found.hasMac ? "m" : "-"), expected) << base;
  }
  EXPECT_STREQ(FindIsaClassName(14), "CPU");
  EXPECT_STREQ(FindIsaClassName(15), "");
}

// That all else is as for any INI file the fuzz target finds.
TEST(AdapterFile, ValuesEndAtTheCommentAndKeepTheirBlanks) {
  FixtureRoot root;
  root.WriteFile("/etc/pelrix/Adapter.ini",
                 "[8086]\nVendor=Ivel  ; Corp\n10D3=NIC  \n4=" + std::string(300, 'v') + "\n[1734]\nVendor= Sub \n");
  root.Run([] {
    const CAdapterFile file;
    std::string name = "old";
    const auto value = [&](const char* key) { return file.GetDeviceName(name, "8086", "", key) ? name : "-"; };
    EXPECT_TRUE(file.GetVendorName(name, "8086", "") && name == "Ivel");
    EXPECT_EQ(value("10D3") + '|' + value("4") + '|' + value("3"), "NIC  |" + std::string(259, 'v') + "|-");
    EXPECT_TRUE(file.GetVendorName(name, "8086", "1734") && name == "Sub ");
    EXPECT_TRUE(file.GetSubVendorName(name, "1734") && file.GetVendorName(name, "1734", nullptr));
    for (const CAdapterFile& none : {CAdapterFile(""), CAdapterFile(nullptr), CAdapterFile("/etc/none"), file})
      EXPECT_FALSE(none.GetVendorName(name, "0001", "FFFF") || none.GetSubVendorName(name, nullptr));
    EXPECT_EQ(name, "Sub ") << "outputs stay";
    EXPECT_FALSE(CAdapterFile("/etc/pelrix").IsReadable()) << "opens, but cannot be read";
  });
}

TEST(AdapterDriver, IsTheRestOfTheLineOfTheFunction) {
  std::string line = "0018\t80861521\tb";
  for (int field = 0; field < 14; ++field)
    line += "\tfebf1000";
  EXPECT_EQ(ParsePciDevicesDriver(line + "\t"), "");
  EXPECT_EQ(ParsePciDevicesDriver(line + "\te1000e two  "), "e1000e two  ");
  EXPECT_EQ(ParsePciDevicesDriver(line + "\t" + std::string(300, 'd')).size(), 254U);
  ServerMachine machine;
  machine.Add("0001:05:03.7", 0x80861521, 0x020000, "first");
  machine.Add("0000:05:03.7", 0x80861521, 0x020000, "second");
  machine.Run([] {
    char buffer[4] = "old";
    EXPECT_EQ(GetAdapterDriverName(2, 5, 5, 0, buffer, sizeof buffer) + int{buffer[0]}, 0);
    EXPECT_EQ(GetAdapterDriverName(2, 5, 3, 7, buffer, sizeof buffer), 1) << "segments do not matter";
    EXPECT_STREQ(buffer, "fir");
  });
}

TEST(AdapterMac, DamagedInterfacesArePassedOver) {
  ServerMachine machine;
  machine.MakeDirectory("/sys/class/net/eth1");
  machine.AddInterface("eth2", "02:00:00:00:00", "");
  machine.AddInterface("eth3", "02:00:00:00:00:03", "");
  machine.AddInterface("eth4", "02:00:00:00:00:04", "/" + std::string(255, 'x'));
  machine.AddInterface("eth5", "02:00:00:00:00:05", "0000:02:00.0");
  machine.AddInterface("eth6", "02:00:00:00:00:06", "../0000:02:00");
  machine.AddInterface("eth0", "02:00:00:00:00:00", "");
  machine.AddInterface("peth0", "02:00:00:00:00:99", "../0000:02:00.0");
  machine.AddInterface("p2p1", "02:00:00:00:00:0f", "../0001:02:1f.7");
  RunTraced(machine, 3, [](TraceCapture& trace) {
    char name[5] = "old";
    unsigned char mac[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    EXPECT_EQ(GetMACInformation(1, 2, 31, 7, name, sizeof name, mac, sizeof mac), 1);
    EXPECT_STREQ(name, "p2p1");
    EXPECT_EQ(Hex(mac), "02000000000F0000");
    EXPECT_EQ(trace.Missing(R"(GetMACInformation():  CNDN PCI interfaces matching /sys/class/net/p[0-9]*p[0-9]* found.
GetMACInformation():   Cannot open /sys/class/net//eth1/address
GetMACInformation():   Cannot read /sys/class/net//eth3/device, errno 2
GetMACInformation():   The target of /sys/class/net//eth4/device is too long (256)
GetMACInformation():   Symbolic link target 0000:02:00.0 has no '/'
GetMACInformation():   Symbolic link target ../0000:02:00 basename is no valid PCI address
GetMACInformation():   found PCI address for eth6:  0000:02:00.fe
GetMACInformation():   PCI address for p2p1:  0001:02:1f.7 matches the required -> OK we found it)"),
              "");
    EXPECT_EQ(GetMACInformation(0, 2, 0, 0, name, sizeof name, mac, 2), 1);
    EXPECT_EQ(name + Hex(mac), "peth02000000000F0000") << "cut; two bytes of the listed interface";
    EXPECT_EQ(GetMACInformation(0, 9, 0, 0, name, sizeof name, mac, sizeof mac), 0);
    EXPECT_EQ(name + Hex(mac), "0000000000000000");
  });
}

TEST(SystemAdapter, ResourcesFollowTheHeaderAndTheKernelsFiles) {
  ServerMachine machine;
  machine.Add("0000:02:00.0", 0x1000CA5C, 0x020000, "",
              {.interruptLine = 11, .interruptPin = 1, .addresses = {0xFE00000C, 5, 0xE0C5, 0xFD000002, 0xFC000000}});
  machine.WriteFile("/proc/iomem",
                    "00000000-00000fff : Reserved\nfc000000-ffffffff : PCI Bus\n"
                    "  fe000000-fe7fffff : 0000:02:00.0\n");
  machine.WriteFile("/proc/dma", " 0x2: 0000CA5c\n 3:\tVEN_1000 \n4 cascade\n");
  RunTraced(machine, 2, [](TraceCapture& trace) {
    const CSystemAdapter adapter = LastAdapter();
    _SystemAdapterIoDescriptor io;
    _SystemAdapterMemoryDescriptor memory;
    _SystemAdapterIrqDescriptor irq;
    _SystemAdapterDmaDescriptor dma;
    std::ostringstream found;
    for (int index = -1; index < 4; ++index) {
      if (adapter.GetIoResource(io, index)) found << index << std::hex << " io " << io.start << '-' << io.end << ' ';
      if (adapter.GetMemoryResource(memory, index))
        found << index << " mem " << memory.start << '-' << memory.end << ' ';
      if (adapter.GetIrqResource(irq, index)) found << index << " irq " << irq.interrupt << ' ';
    }
    EXPECT_EQ(found.str(), "0 io e0c4-e0c4 0 mem fe000000-fe7fffff 0 irq b 1 mem fc000000-ffffffff ")
        << "the upper half of an address is skipped, ports and a reserved type are no memory";
    std::vector<CPhysicalAddress> addresses;
    EXPECT_TRUE(adapter.GetIoAddresses(addresses) && adapter.GetMemoryAddresses(addresses));
    EXPECT_EQ(addresses.at(2).address, 0xFC000000U);
    EXPECT_TRUE(adapter.GetDmaResource(dma, 1) && dma.channel == 3);
    EXPECT_FALSE(adapter.GetDmaResource(dma, 0) || adapter.GetDmaResource(dma, 2) || adapter.GetDmaResource(dma, 257));
    EXPECT_TRUE(
        trace.Has("CSystemAdapter      : Cannot get DMA data from /proc/dma for index 2 from line '4 cascade'."));
    unsigned long long end = 7;
    EXPECT_FALSE(GetMemoryResourceEndAddress(0xABCDEF, end));
    ::unlink("/proc/iomem");
    EXPECT_TRUE(GetMemoryResourceEndAddress(0xE000000, end)) << "the file was kept; any line that contains the text";
    EXPECT_EQ(end, 0xFE7FFFFFU);
  });
}

TEST(SystemAdapter, WwnIsReadOnceAndStaysWithItsRecord) {
  ServerMachine machine;
  machine.Add("0000:19:00.0", 0x10772261, 0x0C0400);
  machine.Add("0000:1a:00.0", 0x10772261, 0x0C0400);
  machine.Add("0000:1b:00.0", 0x10772261, 0x0C0300);
  machine.AddFcHost("host5", "pci0000:17/0000:19:00.0/fc_host", "0x10000090fa534f0a");
  machine.AddFcHost("host6", "pci0000:17/0000:17:02.0/0000:1a:00.0/fc_host", "0x10000090fa534f0b");
  RunTraced(machine, 1, [](TraceCapture& trace) {
    std::vector<CSystemAdapter> adapters;
    CSystemAdapter::ScanPciSystemAdapters(adapters, true);
    ASSERT_EQ(adapters.size(), 3U);
    CWWN wwn;
    EXPECT_TRUE(!adapters[2].GetNodeWWN(wwn) && wwn == CWWN());
    EXPECT_TRUE(adapters[1].GetNodeWWN(wwn)) << "behind a root port";
    EXPECT_EQ(Hex(wwn.bytes), "10000090FA534F0B");
    CSystemAdapter reused = adapters[1];
    EXPECT_TRUE(reused.GetNodeWWN(wwn));
    EXPECT_TRUE(adapters[0].GetNodeWWN(wwn));
    EXPECT_EQ(Hex(wwn.bytes), "10000090FA534F0A");
    std::filesystem::remove("/sys/class/fc_host/host5/port_name");
    CSystemAdapter copy(adapters[0]);
    EXPECT_FALSE(copy.GetNodeWWN(wwn)) << "a new copy has no cache";
    std::filesystem::remove_all("/sys/class/fc_host");
    EXPECT_FALSE(copy.GetNodeWWN(wwn));
    EXPECT_TRUE(adapters[0].GetNodeWWN(wwn)) << "kept";
    reused = adapters[0];
    EXPECT_FALSE(reused.GetNodeWWN(wwn)) << "it was that of another adapter";
    adapters[0] = adapters[1];
    EXPECT_EQ(trace.Missing(R"(CSystemAdapter: '0000:1b:00.0' is NOT a FC-Controller.
CSystemAdapter: 0000:1a:00.0 is a FC-Controller. WWN: 10000090fa534f0b
CSystemAdapter: Cannot get wwn from '/sys/class/fc_host/host5/port_name' for FC-Controller: '0000:19:00.0'.
CSystemAdapter: Cannot collect elements from  directory '/sys/class/fc_host/' to get wwn of  FC-Controller '0000:19:00.0'.)"),
              "");
  });
}

TEST(SystemAdapter, NetworkAdaptersTellTheirDriverAndNames) {
  ServerMachine machine;
  machine.Add("0000:02:00.0", 0x10EC8168, 0x020000, "r8169", {.subVendor = 0x1734, .subDevice = 0x1234});
  machine.Add("0000:03:00.0", 0x10EC8169, 0x030000);
  machine.AddInterface("eth0", "02:00:00:00:00:03", "../0000:02:00.0");
  machine.WriteFile("/etc/pelrix/Adapter.ini",
                    "[10EC]\nVendor=Realtech\n8168=NIC\n81681234=Quad NIC\n[1734]\nVendor=Sub\n");
  RunTraced(machine, 5, [](TraceCapture& trace) {
    const FakeIoctl system(kEthtool);
    std::vector<CSystemAdapter> adapters(3);
    EXPECT_TRUE(CSystemAdapter::ScanSystemNetAdapters(adapters, false));
    ASSERT_EQ(adapters.size(), 1U);
    CSystemAdapter& nic = adapters[0];
    EXPECT_EQ(nic.GetFileVendorName() + nic.GetFileSubVendorName() + nic.GetFileDeviceName(), "RealtechSubQuad NIC");
    EXPECT_EQ(trace.Missing("CSystemAdapter      : Vendor Name     : Sub\nCSystemAdapter      : Enumerator      : PCI"),
              "");
    ethtool_drvinfo info;
    EXPECT_TRUE(nic.GetNetworkDrvInfo(&info));
    EXPECT_STREQ(info.version, "6.1");
    const auto fails = [&info](const CSystemAdapter& adapter) {
      std::memset(&info, 'x', sizeof info);
      return !adapter.GetNetworkDrvInfo(&info) && info.version[0] == '\0' && info.cmd == 0;
    };
    nic.ClassName = "NET";
    nic.InterfaceName = "eth1";
    EXPECT_TRUE(fails(nic)) << "the driver does not tell";
    nic.InterfaceName = "";
    EXPECT_TRUE(fails(nic) && fails(CSystemAdapter()) && !nic.GetNetworkDrvInfo(nullptr));

    trace.Clear();
    CSystemAdapter display(nic);
    CPciSlotData slot = nic.GetSlotData();
    slot.header.bytes[0] = 0xED;  // another vendor
    slot.header.bytes[14] = 1;    // without subsystem
    display.ScanPciNames(slot);
    EXPECT_EQ(display.GetFileVendorName() + display.GetFileSubVendorName() + display.GetFileDeviceName(), "");
    EXPECT_TRUE(trace.Has(
        "CSystemAdapter      : WARNING! No device name found for vendor ID 0x10ED sub vendor ID 0x0 device ID 0x8168 sub system ID 0x0!"));
    EXPECT_EQ(trace.Count("name found"), 3);
    trace.Clear();
    nic.ScanPciNames(CPciSlotData());
    ::unlink("/etc/pelrix/Adapter.ini");
    nic.ScanPciNames(slot);
    EXPECT_EQ(nic.GetFileVendorName(), "Realtech");
    EXPECT_THAT(trace.Lines(), testing::IsEmpty());
  });
}

}  // namespace
