#include "pci/pci_config_list.h"

#include "pci/device_bus_io.h"
#include "support/firmware_tables.h"
#include "support/pci_fixture.h"
#include "support/trace_capture.h"

namespace {

std::string Text(const CPciAddress& address) {
  char text[32];
  std::snprintf(text, sizeof text, "%04x:%02x:%02x.%x", address.segment, address.bus, address.device, address.function);
  return text;
}

// "0000:00:1c.0 slot 3", one per function in the order of the list
std::vector<std::string> Scan(bool withSlots = true) {
  CPciConfigList list;
  const bool any = CPciConfigList::ScanPciSlots(list, withSlots);
  EXPECT_EQ(any, !list.empty());
  std::vector<std::string> found;
  for (const auto& [address, data] : list) {
    EXPECT_EQ(address, data.address);
    found.push_back(Text(address) + " slot " + std::to_string(data.slot));
  }
  return found;
}

using Functions = std::vector<std::string>;

constexpr uint8_t kBridge = 0x01;
constexpr uint8_t kMultiFunctionBridge = 0x81;

}  // namespace

using ScanPciSlots = RootedTest;

TEST_F(ScanPciSlots, FunctionsBehindBridgesInheritTheSlot) {
  AddFunction(root, {});
  AddFunction(root, {.name = "1c.0", .classCode = 0x060400, .headerType = kMultiFunctionBridge, .secondaryBus = 5});
  AddFunction(root, {.name = "1d.0", .classCode = 0x060400, .headerType = kBridge, .secondaryBus = 9});
  AddFunction(root, {.bus = "05", .name = "00.0", .classCode = 0x020000, .headerType = 0x80});
  AddFunction(root, {.bus = "05", .name = "00.1", .classCode = 0x020000, .headerType = 0x80});
  AddFunction(root, {.bus = "05", .name = "01.0", .headerType = kBridge, .primaryBus = 5, .secondaryBus = 6});
  AddFunction(root, {.bus = "06", .name = "1f.7"});
  AddFunction(root, {.bus = "06", .name = "02.0"});
  AddFunction(root, {.bus = "09", .name = "00.0"});
  AddFunction(root, {.bus = "0001:05", .name = "00.0"});
  AddFunction(root, {.bus = "0001:0a", .name = "00.0"});
  WriteSmbios(root, SmbiosTable()
                        .AddSlot({.id = 3, .type = 6, .device = 0x1C})
                        .AddSlot({.id = 4, .type = 6, .bus = 6, .device = 2})
                        .AddSlot({.id = 0, .type = 6})
                        .AddEnd());
  RunTraced(root, 4, [](TraceCapture& trace) {
    EXPECT_EQ(Scan(),
              (Functions{"0000:00:00.0 slot 0", "0000:00:1c.0 slot 3", "0000:00:1d.0 slot -1", "0000:05:00.0 slot 3",
                         "0000:05:00.1 slot 3", "0000:05:01.0 slot 3", "0000:06:02.0 slot 4", "0000:06:1f.7 slot 3",
                         "0000:09:00.0 slot -1", "0001:05:00.0 slot -1", "0001:0a:00.0 slot -1"}));
    EXPECT_TRUE(trace.Has("CPciConfigList      : ## Found PCI Device (Segment 1 Bus 10, Device 0 Function 0) ##"));
    EXPECT_TRUE(trace.Has("CPciConfigList      :    Sub Class     : 0x04     PCI-to-PCI bridge"));
    EXPECT_TRUE(trace.Has("CPciConfigList      :    Brigde device:  Primary bus index  : 5"));
    EXPECT_TRUE(trace.Has("CPciConfigList      : Pci bridge device at slot 3 created bus no 6"));
    EXPECT_TRUE(trace.Has("CPciConfigList      : No entry found in PCI bridge mapping table!"));
    EXPECT_TRUE(trace.Has("CPciConfigList      : 11 PCI devices detected!"));
  });
}

TEST_F(ScanPciSlots, OnlyWellFormedNamesAreFunctions) {
  AddFunction(root, {.bus = "0000:02", .name = "1f.7"});
  for (const char* bus : {"0", "2g", "0x", "000002", "0000.02", "10000:02", ".2", "devices"})
    AddFunction(root, {.bus = bus});
  for (const char* name : {"00.0x", "20.0", "00.8", "0.0", "00:0", "0g.0", "+1.0"})
    AddFunction(root, {.bus = "0000:02", .name = name});
  root.WriteFile("/proc/bus/pci/03", "a file");
  root.MakeDirectory("/proc/bus/pci/0000:02/01.0");
  root.MakeLink("/proc/bus/pci/0000:02/02.0", "missing");
  root.MakeLink("/proc/bus/pci/0000:02/03.0", "1f.7");
  root.MakeLink("/proc/bus/pci/04", "missing");
  RunTraced(root, 3, [](TraceCapture& trace) {
    EXPECT_EQ(Scan(false), (Functions{"0000:02:03.0 slot -1", "0000:02:1f.7 slot -1"}));
    EXPECT_TRUE(
        trace.Has("IsPciDevFileValid  : stat() for /proc/bus/pci/0000:02/02.0 failed errno=2 (No such file or "
                  "directory)--> ignoring"));
    EXPECT_TRUE(
        trace.Has("IsPciDevDirValid  : stat() for /proc/bus/pci/04 failed errno=2 (No such file or "
                  "directory)--> ignoring"));
    EXPECT_TRUE(trace.Has("CPciConfigList      : Invalid PCI device configuration! (Vendor: 0x0 Device: 0x0)"));
    EXPECT_EQ(trace.Count("Slot          : N/A"), 2);
  });
}

TEST_F(ScanPciSlots, OnlyTheFirstFunctionMayFail) {
  root.WriteFile("/proc/bus/pci/00/00.0", BuildHeader({}).substr(0, 63));
  AddFunction(root, {.name = "01.0"});
  AddFunction(root, {.name = "02.0", .vendor = 0xFFFF, .device = 0xFFFF});
  AddFunction(root, {.name = "03.0", .device = 0});
  AddFunction(root, {.name = "04.0"});
  root.WriteFile("/proc/bus/pci/00/05.0", "short");
  AddFunction(root, {.name = "06.0"});
  RunTraced(root, 4, [](TraceCapture& trace) {
    EXPECT_EQ(Scan(false), (Functions{"0000:00:01.0 slot -1", "0000:00:04.0 slot -1"}));
    EXPECT_EQ(trace.Count("Invalid PCI device configuration!"), 3);
    EXPECT_TRUE(trace.Has("GetPciConfigSpace : read error from /proc/bus/pci/00/05.0"));
    EXPECT_EQ(trace.Count("open and read /proc/bus/pci/00/06.0"), 0);
    EXPECT_EQ(trace.Count("open and read"), 6) << "no header is read twice";
  });
}

TEST_F(ScanPciSlots, AMachineWithoutPciGivesAnEmptyList) {
  RunTraced(root, 3, [](TraceCapture& trace) {
    EXPECT_EQ(Scan(), Functions{});
    EXPECT_TRUE(
        trace.Has("BuildPciDeviceNameList  : scandir for directory /proc/bus/pci failed; ## ERROR: errno=2 "
                  "(No such file or directory)"));
    EXPECT_TRUE(trace.Has("CPciConfigList      : 0 PCI devices detected!"));
  });
}

using GetPciConfigSpace = RootedTest;

TEST_F(GetPciConfigSpace, ReadsExactlyOrFails) {
  AddFunction(root, {.bus = "ff", .name = "1f.7", .subVendor = 0x1734, .subDevice = 0xABCD});
  root.Run([] {
    CDeviceBusIo device;
    unsigned char buffer[8] = {1, 2, 3, 4};
    unsigned length = 4;
    EXPECT_TRUE(device.GetPciConfigSpace(0, 0xFF, 0x1F, 7, 44, length, buffer));
    EXPECT_EQ(buffer[1], 0x17);
    EXPECT_EQ(buffer[2], 0xCD);
    const auto fails = [&](unsigned segment, unsigned bus, unsigned function, unsigned offset, unsigned count) {
      unsigned char room[5000];
      return !device.GetPciConfigSpace(segment, bus, 0x1F, function, offset, count, room);
    };
    EXPECT_TRUE(fails(0, 0xFF, 7, 62, 4)) << "behind the end";
    EXPECT_TRUE(fails(0, 0xFF, 7, 0, 0));
    EXPECT_TRUE(fails(0, 0xFF, 7, 0, 4999));
    EXPECT_TRUE(fails(1, 0xFF, 7, 0, 4)) << "another segment";
    EXPECT_TRUE(fails(0x10000, 0xFF, 7, 0, 4)) << "numbers are not cut";
    EXPECT_TRUE(fails(0, 0x1FF, 7, 0, 4));
    EXPECT_FALSE(device.GetPciConfigSpace(0, 0xFF, 0xFF, 0xFF, 0, length, buffer)) << "the invalid address";
    EXPECT_FALSE(device.GetPciConfigSpace(0, 0xFF, 0x1F, 7, 0, length, nullptr));
  });
}

TEST(PciConfigHeader, ClassNames) {
  constexpr std::tuple<uint32_t, const char*, const char*> kRows[] = {
      {0x000200, "Unknown", "Unknown"},
      {0x030000, "Display controller", "VGA compatible controller"},
      {0x030002, "Display controller", "8514 compatible controller"},
      {0x070003, "Simple communication controller", "Serial port"},
      {0x080302, "System peripheral", "RTC"},
      {0x0A0100, "Docking station", "Docking station"},
      {0x0B3000, "Processor", "Processor"},
      {0x0C0330, "Serial bus controller", "Universal Serial Bus (USB)"},
      {0x120000, "Unknown", "Unknown"},
  };
  for (const auto& [classCode, base, sub] : kRows) {
    CPciCommonConfigHeader header;
    BuildHeader({.classCode = classCode}).copy(reinterpret_cast<char*>(header.bytes), sizeof header.bytes);
    EXPECT_STREQ(CPciCommonConfigHeader::GetPciBaseClassDescription(header), base) << classCode;
    EXPECT_STREQ(CPciCommonConfigHeader::GetPciSubClassDescription(header), sub) << classCode;
  }
}
