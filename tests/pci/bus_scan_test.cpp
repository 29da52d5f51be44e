#include "pci/bus_scan.h"

#include <net/if.h>
#include <sys/ioctl.h>

#include <chrono>

#include "pci/fc_controllers.h"
#include "pci/line_reader.h"
#include "pci/mac_information.h"
#include "pci/pci_function_scan.h"
#include "pci/pci_names.h"
#include "platform/unique_fd.h"
#include "support/fake_ioctl.h"
#include "support/firmware_tables.h"
#include "support/pci_fixture.h"
#include "support/trace_capture.h"

namespace {

constexpr const char* kDevices = "/proc/bus/pci/devices";

BusTableEntry* Find(const BusTable& table, const BusKey& key) {
  return BusSearchTable(table, 0, key, false);
}

BusTableEntry* FindFunction(int bus, int device, int function) {
  return Find(GetBusTables().functions, {kBusTypePci, bus + 1, device, function + 1, 0});
}

BusTableEntry* FindIsa(const std::string& name) {
  for (BusTableEntry* entry = GetBusTables().functions.first; entry != nullptr; entry = entry->next) {
    if (entry->function.busType == kBusTypeIsa && name == entry->function.deviceName.Text()) return entry;
  }
  return nullptr;
}

int Count(const BusTable& table) {
  int count = 0;
  for (const BusTableEntry* entry = table.first; entry != nullptr; entry = entry->next)
    ++count;
  return count;
}

std::string HexOf(const BusHardwareAddress& address) {
  std::string text;
  for (uint32_t index = 0; index < address.length; ++index) {
    char byte[3];
    std::snprintf(byte, sizeof byte, "%02x", address.bytes[index]);
    text += byte;
  }
  return text;
}

// A bridge, a NIC and a Fibre Channel adapter with two functions behind it.
void MakeMachine(const FixtureRoot& root) {
  AddFunction(root, {.name = "1c.0", .classCode = 0x060400, .headerType = 0x81, .secondaryBus = 5});
  AddFunction(root, {.bus = "02",
                     .device = 0x1041,
                     .classCode = 0x020000,
                     .subVendor = 0x1734,
                     .subDevice = 0x11B2,
                     .selfTest = 0x80,
                     .interruptLine = 11,
                     .interruptPin = 1});
  AddFunction(root, {.bus = "05", .vendor = 0x10DF, .device = 0xF100, .classCode = 0x0C0400, .headerType = 0x80});
  AddFunction(root, {.bus = "05", .name = "00.1", .vendor = 0x10DF, .device = 0xF101, .classCode = 0x0C0400});
  root.WriteFile(kDevices,
                 DevicesLine(0, 0x1C, 0, 0x8086, 0x0D57, 0, {}) +
                     DevicesLine(2, 0, 0, 0x8086, 0x1041, 11, {0x12DF240004, 0, 0xF001}) +
                     DevicesLine(5, 0, 0, 0x10DF, 0xF100, 11, {}) + DevicesLine(5, 0, 1, 0x10DF, 0xF101, 12, {0xE000}) +
                     DevicesLine(9, 0, 0, 0x1111, 0x2222, 13, {0xD000}) + "no line\n" + std::string(3000, '0') + "\n");
  root.WriteFile(
      "/etc/pelrix/Adapter.ini",
      "; [8086]\n[1734]\nVendor= Quennet \n[8086]\n; a comment\nVendor=Acme\n1041=NIC\n104111B2= NIC with RAID "
      "\n[8087]\nVendor=x\n1041=y\n");
  root.MakeDirectory("/sys/devices/pci0000:00/0000:05:00.0/host7/fc_host/host7");
  root.MakeLink("/sys/bus/pci/devices/0000:05:00.0", "../../../devices/pci0000:00/0000:05:00.0");
  root.WriteFile("/sys/class/fc_host/host7/port_name", "0x10000090fa534f0a\n");
  root.WriteFile("/sys/class/net/eth0/address", "52:54:00:0a:0b:fc\n");
  root.MakeLink("/sys/class/net/eth0/device", "../../../0000:02:00.0");
  root.MakeLink("/sys/class/net/eth0/driver", "../../../drivers/e1000e");
  root.WriteFile("/sbin/lspci", "#!/bin/sh\necho '05:00.0 Fibre Channel [0c04]: Light Pulse [10df:f100] (rev 03)'\n",
                 0755);
  WriteSmbios(root, SmbiosTable().AddSlot({.id = 3, .type = 6, .device = 0x1C}).AddEnd());
}

}  // namespace

using BusTablesOfAMachine = RootedTest;

TEST_F(BusTablesOfAMachine, PciFunctionsWithTheirResources) {
  MakeMachine(root);
  RunTraced(root, 4, FixtureRoot::kUsr, [](TraceCapture& trace) {
    BusBuildTables();
    const BusTables& tables = GetBusTables();
    const BusFunction& nic = FindFunction(2, 0, 0)->function;
    EXPECT_STREQ(nic.className.Text(), "Ethernet controller");
    EXPECT_EQ(nic.type, kComponentNetwork);
    EXPECT_STREQ(nic.deviceName.Text(), "NIC with RAID");
    EXPECT_STREQ(nic.path.Text(), "/proc/bus/pci/02/00.0");
    EXPECT_EQ(HexOf(nic.hardwareAddress), "5254000a0bfc");
    EXPECT_TRUE(trace.Has("PCI device 02:00.0: 8086:1041 1734:11b2 NIC with RAID (Acme)"));
    EXPECT_TRUE(
        trace.Has("    PCI Id 8086:1041 IRQ 0b Base Addr[0-5]: 00000012df240004 0000000000000000 "
                  "000000000000f001 0000000000000000 0000000000000000 0000000000000000"));
    EXPECT_TRUE(trace.Has("... found PCI address 02:00.0 and driver 'e1000e' for eth0"));

    const BusPci& pci = Find(tables.pcis, {3, 0, 1, 0, 0})->pci;
    EXPECT_TRUE(pci.selfTest == 1 && pci.interruptLine == 11 && pci.subsystemId == 0x11B2 && pci.childBus == -1);
    EXPECT_STREQ(pci.subsystemVendorName.Text(), "Quennet");
    const BusMemory& memory = Find(tables.memories, {kBusTypePci, 3, 0, 1, 1})->memory;
    EXPECT_TRUE(memory.addressLow == 0xDF240000 && memory.addressHigh == 0x12 && memory.length == 16);
    EXPECT_EQ(Find(tables.ports, {kBusTypePci, 3, 0, 1, 1})->port.first, 0xF000);

    EXPECT_EQ(FindFunction(0, 0x1C, 0)->function.slot, 3);
    const BusPci& bridge = Find(tables.pcis, {1, 0x1C, 1, 0, 0})->pci;
    EXPECT_TRUE(bridge.childBus == 6 && bridge.childBusType == 5);
    EXPECT_TRUE(trace.Has("Bridge device:  Primary   bus index: 0"));
    EXPECT_EQ(tables.highestPciDevice, 0x1C);

    EXPECT_EQ(HexOf(FindFunction(5, 0, 0)->function.hardwareAddress), "10000090fa534f0a");
    EXPECT_STREQ(FindFunction(5, 0, 0)->function.vendorName.Text(), "");
    EXPECT_STREQ(FindFunction(5, 0, 1)->function.vendorName.Text(), "10DF");
    const BusTableEntry* const component = Find(tables.components, {kBusTypePci, 6, 0, 0, 0});
    EXPECT_STREQ(component->component.name.Text(), "10DF - F101") << "the last function names the device";
    EXPECT_STREQ(component->component.ids.Text(), "10DF / F101");
    EXPECT_EQ(Count(tables.components), 3);

    EXPECT_EQ(FindFunction(9, 0, 0), nullptr);
    EXPECT_TRUE(trace.Has("Error 2 opening /proc/bus/pci/09/00.0"));
    EXPECT_EQ(Find(tables.irqs, {0, 1, 0, 1, 1})->irq.irq, 13) << "resources without an owner are kept";
    EXPECT_EQ(Find(tables.irqs, {kBusTypePci, 3, 0, 1, 1})->irq.sharing, kIrqShared);
    EXPECT_EQ(Find(tables.irqs, {kBusTypePci, 6, 0, 1, 1})->irq.sharing, kIrqNotShared);
  });
}

TEST_F(BusTablesOfAMachine, ASecondPassRefreshesTheEntries) {
  MakeMachine(root);
  root.WriteFile("/proc/interrupts", "  11:  5  XT-PIC  eth0\n  14:  5  XT-PIC  ide0\n");
  RunTraced(root, 4, FixtureRoot::kUsr, [](TraceCapture& trace) {
    BusTableEntry* const first = BusGetNextTableEntry(0);
    EXPECT_EQ(first, FindIsa("ide0"));
    const BusTableEntry* const nic = FindFunction(2, 0, 0);
    const int memories = Count(GetBusTables().memories);
    WriteWholeFile(kDevices, DevicesLine(2, 0, 0, 0x8086, 0x1041, 10, {0xDF300004}));
    WriteWholeFile("/sys/class/fc_host/host7/port_name", "0x01\n");
    BusBuildTables();
    EXPECT_EQ(FindFunction(2, 0, 0), nic);
    EXPECT_EQ(Count(GetBusTables().memories), memories);
    EXPECT_EQ(Find(GetBusTables().memories, {kBusTypePci, 3, 0, 1, 1})->memory.addressLow, 0xDF300000);
    EXPECT_EQ(Find(GetBusTables().irqs, {kBusTypePci, 3, 0, 1, 1})->irq.irq, 10);
    EXPECT_EQ(FindFunction(5, 0, 0)->used, 0U);
    EXPECT_EQ(first->used, 1U) << "ISA devices stay";
    for (const char* line : {"Unused Function 5.6.0.1!", "Unused Pci 6.0.1!", "Unused Memory 5.6.0.2.1!",
                             "Unused Irq 5.6.0.1.1!", "Unused Port 5.3.0.1.1!", "Unused Component 5.6.0!"}) {
      EXPECT_TRUE(trace.Has(line)) << line;
    }
    EXPECT_EQ(trace.Count("ScanFCC"), 1) << "the Fibre Channel cache is not read twice within 120 seconds";
    EXPECT_EQ(BusGetNextTableEntry(0), first);
    int walked = 1;
    while (BusGetNextTableEntry(1) != nullptr)
      ++walked;
    EXPECT_EQ(walked, Count(GetBusTables().functions));
    EXPECT_EQ(BusGetNextTableEntry(1), nullptr);
  });
}

// The list shows no segments; only the header tells whose line it is.
TEST_F(BusTablesOfAMachine, AFunctionOfAnotherSegmentOwnsNothing) {
  AddFunction(root, {.name = "03.0", .classCode = 0x020000});
  AddFunction(root, {.name = "04.0", .vendor = 0xFFFF, .device = 0xFFFF});
  root.MakeDirectory("/sys/devices/pci10000:00/10000:00:03.0/host1/fc_host/host1");
  root.WriteFile(kDevices, DevicesLine(0, 3, 0, 0x15B3, 0x1016, 5, {0xA000}) +
                               DevicesLine(0, 3, 0, 0x8086, 0x0D57, 6, {0xB000}) +
                               DevicesLine(0, 3, 0, 0x8086, 0x0D57, 7, {0xC000}) +
                               DevicesLine(0, 4, 0, 0x8086, 0x1520, 0, {0xD000}));
  RunTraced(root, 3, [](TraceCapture& trace) {
    BusBuildTables();
    const BusTables& tables = GetBusTables();
    EXPECT_EQ(Count(tables.functions), 2);
    EXPECT_STREQ(FindFunction(0, 3, 0)->function.vendorName.Text(), "8086");
    EXPECT_EQ(Find(tables.irqs, {kBusTypePci, 1, 3, 1, 1})->irq.irq, 6);
    EXPECT_EQ(Find(tables.irqs, {kBusTypePci, 1, 3, 1, 2}), nullptr);
    EXPECT_EQ(Find(tables.memories, {kBusTypePci, 1, 3, 1, 1})->memory.addressLow, 0xB000);
    EXPECT_TRUE(tables.irqs.first->irq.irq == 5 && tables.irqs.first->next->irq.irq == 7);
    EXPECT_EQ(Find(tables.memories, {kBusTypePci, 1, 4, 1, 1})->memory.addressLow, 0xD000) << "a virtual function";
    EXPECT_EQ(trace.Count("PCI device 00:03.0"), 1);
    FcController controller;
    EXPECT_FALSE(ParseFcHostPath("/sys/devices/pci10000:00/10000:00:03.0/host1/fc_host/host1", controller));
  });
}

TEST_F(BusTablesOfAMachine, ResourcesOfEarlierPassesMeanNothing) {
  AddFunction(root, {.name = "03.0"});
  const std::string strange = DevicesLine(9, 0, 0, 1, 1, 5, {0xA000, 0xF001}) + DevicesLine(9, 1, 0, 1, 1, 6, {});
  root.WriteFile(kDevices, strange + DevicesLine(0, 3, 0, 0x8086, 0x0D57, 11, {0xB000}));
  RunTraced(root, 3, [&strange](TraceCapture& trace) {
    BusBuildTables();
    const BusTables& tables = GetBusTables();
    for (int pass = 0; pass < 3; ++pass)
      BusBuildTables();
    EXPECT_EQ(Count(tables.irqs), 3);
    EXPECT_EQ(Count(tables.memories) + Count(tables.ports), 3);
    // The lines that nobody owns move to the end, and one of them is gone.
    WriteWholeFile(kDevices,
                   DevicesLine(0, 3, 0, 0x8086, 0x0D57, 6, {0x9FF8}) + strange.substr(0, strange.find('\n') + 1));
    BusBuildTables();
    EXPECT_EQ(Count(tables.irqs), 3);
    EXPECT_TRUE(trace.Has("Unused Irq 0.1.0.1.1!"));
    EXPECT_EQ(Find(tables.irqs, {kBusTypePci, 1, 3, 1, 1})->irq.sharing, kIrqNotShared);
    WriteWholeFile(kDevices, DevicesLine(0, 3, 0, 0x8086, 0x0D57, 6, {0x9FF8}));
    BusBuildTables();
    EXPECT_EQ(Find(tables.memories, {kBusTypePci, 1, 3, 1, 1})->memory.length, 16) << "not cut by what is gone";
  });
}

TEST_F(BusTablesOfAMachine, NamesFollowTheAdapterFile) {
  const std::string path = "/etc/pelrix/Adapter.ini";
  root.WriteFile(path,
                 "[ 8086]\n[8086]x\nVendor= First \n10D3=One\n10d4=x\n10D41=x\n10D4= \n10D4=late\n10D512AB=Board\n"
                 "[8087]\n\nVendor=no\n[8087]\nVendor=no\n[1AF4]\nVendor=V\n[8086]\nVendor=Second\n10D6=x");
  RunTraced(root, 3, [&path](TraceCapture& trace) {
    std::string device;
    std::string vendor;
    const auto names = [&](unsigned of, unsigned id, int subsystem) {
      const bool found = mapPciID(of, id, subsystem, device, vendor);
      return vendor + '|' + device + (found ? "" : "?");
    };
    EXPECT_EQ(names(0x8086, 0x10D3, 7) + names(0x8086, 0x10D4, -1), "First|OneFirst|");
    EXPECT_EQ(names(0x8086, 0x10D5, 0x12AB) + names(0x8086, 0x10D5, -1), "First|BoardFirst|?");
    EXPECT_EQ(names(0x8086, 0x10D6, -1) + names(0x8087, 1, 1) + names(0x1AF4, 1, -1), "First|?|?V|?");
    for (const char* name : {"Two", "Six", "Ten"}) {  // as long as before, and at once
      WriteWholeFile(path.c_str(), std::string("[8086]\nVendor=First\n10D3=") + name + "\n");
      EXPECT_EQ(names(0x8086, 0x10D3, -1), std::string("First|") + name);
    }
    ::unlink(path.c_str());
    EXPECT_EQ(names(0x8086, 0x10D3, -1), "|?");
    ::mkdir(path.c_str(), 0755);
    EXPECT_EQ(names(0x8086, 0x10D3, -1), "|?");
    EXPECT_TRUE(trace.Has("Error 2 opening " + path) && trace.Has("Error 21 opening " + path));
  });
}

TEST_F(BusTablesOfAMachine, CommandsKeepTheirComplaintsToThemselves) {
  if (::access("/usr/bin/lspci", X_OK) != 0) GTEST_SKIP() << "lspci is not installed";
  AddFunction(root, {.name = "03.0"});
  root.WriteFile(kDevices, "0018\t80860d57\t0\t0\t0\t0\t0\t0\t0\t0\n");
  root.WriteFile("/sbin/other", "");
  root.MakeDirectory("/var");
  root.Run(FixtureRoot::kUsr, [] {
    const UniqueFd file{::open("/var/stderr", O_WRONLY | O_CREAT | O_CLOEXEC, 0600)};
    const UniqueFd before{::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)};
    ::dup2(file.Get(), STDERR_FILENO);
    RefreshFcControllers(std::chrono::steady_clock::now());  // ls complains
    char name[64];
    EXPECT_TRUE(GetPciDeviceName(0x8086, 0x0D57, name, sizeof name)) << "the other lspci names it";
    std::filesystem::remove_all("/proc/bus/pci");
    LineReader::OpenCommand("/usr/bin/lspci -nn");  // lspci complains
    ::dup2(before.Get(), STDERR_FILENO);
  });
  EXPECT_EQ(root.ReadFile("/var/stderr"), "");
}

TEST_F(BusTablesOfAMachine, CachesOutliveStaticObjects) {
  MakeMachine(root);
  root.MakeDirectory("/tmp");
  root.Run(FixtureRoot::kUsr, [] {
    static constexpr auto kUseAll = [] {
      char name[8] = "";
      FcWwn wwn;
      const bool known = GetPciDeviceName(0x10DF, 0xF100, name, sizeof name) && AdapterIsFCController(5, 0, 0, wwn);
      if (!known || GetPciSlotNumber(0, 0x1C) != 3) ::_exit(1);
    };
    const auto exitAfterUse = [] {
      // Runs after the destructors of what is made from here on, and tells that it did.
      std::atexit([] {
        kUseAll();
        ::_exit(0);
      });
      RefreshFcControllers(std::chrono::steady_clock::now());
      kUseAll();
      std::exit(2);
    };
    EXPECT_EXIT(exitAfterUse(), ::testing::ExitedWithCode(0), "");
  });
}

TEST_F(BusTablesOfAMachine, AnEmptyMachineEndsQuietly) {
  RunTraced(root, 4, [](TraceCapture& trace) {
    EXPECT_FALSE(BusGetNextTableEntry(1) != nullptr || BusGetNextTableEntry(0) != nullptr || ScanPciFunctions());
    unsigned char wwn[8] = {1};
    EXPECT_FALSE(IsFCController(0, 0, 0, 0, wwn, sizeof wwn));
    EXPECT_EQ(wwn[0], 0);
    EXPECT_TRUE(trace.Has("IsFCController: the list ListOfFCControllers is empty --> no FC-Controlers discovered"));
    EXPECT_TRUE(trace.Has("TolvBusGetMACInformation(): No matches found! Returning GLOB_NOMATCH..."));
    EXPECT_TRUE(trace.Has("... no paths /sys/class/net/vmnic*. Use kernel 2.4 procedures"));
    char name[8] = "x";
    EXPECT_FALSE(GetPciDeviceName(1, 2, name, sizeof name) || GetPciDeviceName(1, 3, name, sizeof name));
    EXPECT_STREQ(name, "");
    EXPECT_EQ(trace.Count("## ERROR! /sbin/lspci dos not exist on this system!"), 1);
    EXPECT_EQ(GetPciSlotNumber(1, 2), 0);
    EXPECT_TRUE(trace.Has("slot number for 01:02 not found, assuming SlotNo=0"));
  });
}

TEST_F(BusTablesOfAMachine, FcControllersAreReadAnewAfterTwoMinutes) {
  MakeMachine(root);
  root.Run(FixtureRoot::kUsr, [] {
    using std::chrono::seconds;
    const auto start = std::chrono::steady_clock::now();
    RefreshFcControllers(start);
    unsigned char wwn[10] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    EXPECT_FALSE(IsFCController(1, 5, 0, 0, wwn, 4)) << "another domain";
    EXPECT_TRUE(IsFCController(0, 5, 0, 0, wwn, sizeof wwn) && wwn[4] == 0xFA && wwn[9] == 0);
    WriteWholeFile("/sys/class/fc_host/host7/port_name", "21\n");
    FcWwn found;
    RefreshFcControllers(start + seconds(119));
    EXPECT_TRUE(AdapterIsFCController(5, 0, 0, found) && found[7] == 0x0A);
    RefreshFcControllers(start + seconds(120));
    EXPECT_TRUE(AdapterIsFCController(5, 0, 0, found) && found[7] == 0x21);
  });
}

TEST_F(BusTablesOfAMachine, OneDeviceCollectsItsResources) {
  AddFunction(root, {.name = "03.0", .classCode = 0x020000});
  root.WriteFile(kDevices, DevicesLine(0, 3, 0, 0x8086, 0x0D57, 11, {0xC001}));
  root.WriteFile(
      "/proc/interrupts",
      "           CPU0       CPU1\n  7:  1  2  IO-APIC-level  parport0\n 11:  1  2  IO-APIC-level  usb, eth12x\n"
      "  9:  1  2  XT-PIC\n NMI:  1  2  Non-maskable interrupts\n 12:  1  0  XT-PIC  odd one\n");
  root.WriteFile("/proc/dma", " 3: parport0\n 4: cascade\n x: y\n");
  root.WriteFile("/proc/ioports",
                 "0000-0cf7 : PCI Bus 0000:00\n  0000-001f : dma1\n0378-037a : parport0\n0400-0410 : Intel PMC\n"
                 "c000-cfff : 0000:00:03.0\n0500-04ff : bad\n");
  RunTraced(root, 3, [](TraceCapture& trace) {
    BusBuildTables();
    const BusTables& tables = GetBusTables();
    const BusTableEntry* const parport = FindIsa("parport0");
    ASSERT_NE(parport, nullptr);
    EXPECT_STREQ(parport->function.className.Text(), "Parallel port");
    EXPECT_EQ(parport->function.slot, -1);
    const BusKey key = {kBusTypeIsa, 1, 0, parport->function.number, 1};
    EXPECT_EQ(Find(tables.irqs, key)->irq.trigger, kIrqLevel);
    EXPECT_EQ(Find(tables.dmas, key)->dma.width, 2);
    EXPECT_EQ(Find(tables.ports, key)->port.length, 3);
    EXPECT_EQ(parport->counters[kResourceIrq] + parport->counters[kResourceDma] + parport->counters[kResourcePort], 3);
    EXPECT_STREQ(FindIsa("odd one")->function.className.Text(), "Unknown Device");

    EXPECT_TRUE(trace.Has("Device column for IRQ 9 is empty, entry ignored"));
    EXPECT_TRUE(trace.Has("Add device eth12 for NIC with IRQ 11"));
    EXPECT_EQ(trace.Count("Assign IRQ 11"), 0) << "it belongs to a PCI function";
    EXPECT_TRUE(trace.Has("Assign DMA 4 to cascade"));
    EXPECT_TRUE(trace.Has("Skip I/O port range 0000-0cf7 for PCI Bus 0000:00"));
    EXPECT_TRUE(trace.Has("Skipped I/O port range '0400-0410 : Intel PMC'"));
    EXPECT_EQ(Find(tables.ports, {kBusTypePci, 1, 3, 1, 1})->port.length, 256) << "refreshed from the port list";
    EXPECT_EQ(Count(tables.ports), 2);
  });
}

TEST_F(BusTablesOfAMachine, MemoryRangesEndWhereAnotherDeviceBegins) {
  AddFunction(root, {.name = "03.0"});
  AddFunction(root, {.name = "03.1"});
  AddFunction(root, {.name = "04.0"});
  root.WriteFile(kDevices, DevicesLine(0, 3, 1, 0x8086, 0x0D57, 0, {0x1040}) +
                               DevicesLine(0, 4, 0, 0x8086, 0x0D57, 0, {0x1080, 0x1000}));
  root.Run([] {
    const BusKey key = {kBusTypePci, 1, 3, 1, 0};
    BusTableEntry* const entry = BusAllocateMemoryEntry(BusAllocateFunctionEntry(&key));
    entry->memory.kind = kMemoryOfPci;
    entry->memory.addressLow = 0x1000;
    entry->memory.length = 0x100;
    BusInsertTable(GetBusTables().memories, entry);
    EXPECT_TRUE(ScanPciFunctions());
    EXPECT_EQ(entry->memory.length, 0x80) << "not cut by its own device, nor by the same start";
    EXPECT_EQ(Find(GetBusTables().memories, {kBusTypePci, 1, 4, 1, 1})->memory.length, 16);
  });
}

TEST_F(BusTablesOfAMachine, VmwareVectorsReplaceIrqs) {
  root.WriteFile(kDevices, DevicesLine(1, 0, 0, 0x1000, 0x1960, 9, {}) + DevicesLine(1, 1, 0, 0x1000, 0x0408, 9, {}));
  root.WriteFile("/proc/vmware/pci", "Bus:Sl.F Vend:Dvid\n001:00.0 1000:1960 1014:0260 RAID megaraid 0a/9/0x79 C\n");
  RunTraced(root, 3, [](TraceCapture& trace) {
    ScanPciFunctions();
    EXPECT_TRUE(trace.Has("    On VMware: Replaced real IRQ 9 by IRQ vector 0x79 for PCI Id 1000:1960"));
    EXPECT_TRUE(trace.Has("    On VMware: Could not replace real IRQ 9 by IRQ vector for PCI Id 1000:0408"));
    EXPECT_EQ(GetBusTables().irqs.first->irq.irq, 0x79);
  });
}

TEST(BusGetMACInformation, InterfacesWithoutPciAddressMatchByIrq) {
  for (const bool sysfs : {true, false}) {
    const FixtureRoot root;
    AddFunction(root, {.name = "03.0", .classCode = 0x020000});
    root.WriteFile(kDevices, DevicesLine(0, 3, 0, 0x8086, 0x0D57, 11, {}));
    root.WriteFile("/proc/net/dev", "Inter-|   Receive\n face |bytes\n    lo: 0 0\n  net7: 1 2\n");
    if (sysfs) {
      root.WriteFile("/sys/class/net/p1s0/address", "02:00:00:00:00:07\n");
      root.WriteFile("/sys/class/net/p1s0/device/irq", "11\n");
      root.WriteFile("/sys/class/net/p2s0/address", "02:zz\n");
    }
    root.Run([] {
      const FakeIoctl kernel([](const std::string&, unsigned long request, void* argument) -> std::optional<int> {
        auto* const interface = static_cast<ifreq*>(argument);
        if (std::string(interface->ifr_name) != "net7") return -ENODEV;
        if (request == SIOCGIFHWADDR) std::memcpy(interface->ifr_hwaddr.sa_data, "\x02\0\0\0\0\x07", 6);
        if (request == SIOCGIFMAP) interface->ifr_map.irq = 11;
        return 0;
      });
      BusBuildTables();
      EXPECT_EQ(HexOf(FindFunction(0, 3, 0)->function.hardwareAddress), "020000000007");
    });
  }
}

TEST(BusParsers, NamesAndAddresses) {
  LspciLine device;
  const std::string text = "00:03.0 Ethernet controller [0200]: " + std::string(90, 'x') + " [1af4:1041] (rev 01)";
  ASSERT_TRUE(ParseLspciLine(text, device));
  EXPECT_TRUE(device.vendor == 0x1AF4 && device.device == 0x1041);
  EXPECT_EQ(device.description, text.substr(8, 97));
  for (const char* bad : {"", "[1:2]", "00:03.0", "00:03.0 x [12", "00:03.0 x [0200] [rev]"})
    EXPECT_FALSE(ParseLspciLine(bad, device)) << bad;

  PhysicalNicParser parser;
  PhysicalNic nic;
  int records = 0;
  for (const char* line : {"  device = \"vmnic0\",", "pci = \"0000:02:00.0\"", "  driver = \"ne1000\"",
                           "driver = \"late\"", "device = \"vmnic1\"", "driver = \"cut", "pci = \"02:00.1\""}) {
    if (parser.AddLine(line, nic)) ++records;
  }
  EXPECT_TRUE(records == 1 && nic.driver == "ne1000");
  CPciAddress address;
  EXPECT_TRUE(ParsePciAddress("../02:1f.1", address) && address == (CPciAddress{0, 2, 0x1F, 1}));
  EXPECT_FALSE(ParsePciAddress("../../virtio2", address));
  FcController controller;
  EXPECT_FALSE(ParseFcHostPath("0:0:0.0/host1", controller)) << "the address has a fixed length";
}
