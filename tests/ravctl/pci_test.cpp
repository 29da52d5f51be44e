// ravctl pci and slots.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ravctl/tool_machine.h"
#include "support/firmware_tables.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

void WriteRoutingTable(const ToolRoot& machine, const std::vector<IrqSlot>& slots) {
  machine.MakeSparseFile("/dev/mem", 0x100000);
  machine.WriteAt("/dev/mem", 0xF0000, IrqRoutingTable(slots));
}

TEST(Pci, TreeAndInheritedSlots) {
  const ToolRoot machine;
  ServerTree().Install(machine);
  AddFunction(machine, {.bus = "17", .name = "01.0", .classCode = 0x060400, .headerType = 1, .secondaryBus = 0x18});
  const nlohmann::json rows = machine.Json("pci")["data"];
  EXPECT_THAT(Values(rows, "address"),
              ElementsAre("0000:00:01.0", "0000:17:00.0", "0000:17:01.0", "0000:18:00.0", "0000:5e:00.0"));
  EXPECT_THAT(Values(rows, "slot"), ElementsAre("4", "4", "4", "3", "-"));
  EXPECT_THAT(Values(rows, "slot_from"), ElementsAre("firmware", "bridge", "bridge", "firmware", "-"));
  EXPECT_THAT(Values(rows, "parent"), ElementsAre("-", "0000:00:01.0", "0000:00:01.0", "0000:17:01.0", "-"));
  EXPECT_EQ(machine.Ravctl("pci --tree -o address,ids,slot_text,buses,name").out,
            "ADDRESS          IDS       SLOT       BUSES    NAME\n"
            "0000:00:01.0     8086:f030 4          00 -> 17 PCI-to-PCI bridge\n"
            "├─0000:17:00.0   8086:1521 4 (bridge) -        Kestrel Quad \\x1b[31mPort\n"
            "└─0000:17:01.0   8086:0d57 4 (bridge) 00 -> 18 PCI-to-PCI bridge\n"
            "  └─0000:18:00.0 1000:ff16 3          -        RAID controller\n"
            "0000:5e:00.0     144d:ffa8 -          -        Mass storage controller\n");
}

TEST(Pci, FiltersAndBadInput) {
  const std::pair<const char*, const char*> rows[] = {
      {"--id 8086:", "0000:00:01.0\n0000:17:00.0\n"},
      {"--id :FFA8", "0000:5e:00.0\n"},
      {"--class net* --slot 4", "0000:17:00.0\n"},
      {"--tree --driver igb", "0000:00:01.0\n└─0000:17:00.0\n"},
  };
  const Fault faults[] = {
      {"--driver none", 1, ""},
      {"--id intel", 2, "--id: not VENDOR:DEVICE in hexadecimal: intel: pci (see ravctl pci --help)"},
      {"--slots 4", 2, "unknown option: --slots (did you mean --slot?)"},
  };
  const ToolRoot machine;
  ServerTree().Install(machine);
  const CommandLine pci = "pci -o address --no-headings";
  for (const auto& [words, out] : rows)
    EXPECT_EQ(machine.Ravctl(pci + words).out, out);
  ExpectFaults(machine, pci, faults);
}

// A bridge whose bus is its own, as broken firmware sets it up.
TEST(Pci, BridgesInACircleAreShownOnce) {
  const ToolRoot machine;
  AddFunction(machine, {.bus = "01", .name = "00.0", .classCode = 0x060400, .headerType = 1, .secondaryBus = 2});
  AddFunction(machine, {.bus = "02", .name = "00.0", .classCode = 0x060400, .headerType = 1, .secondaryBus = 1});
  EXPECT_EQ(machine.Ravctl("pci --tree -o address --no-headings").out, "0000:01:00.0\n└─0000:02:00.0\n");
}

TEST(Slots, SourcesThatAgreeShareALine) {
  const ToolRoot machine;
  ServerTree().Install(machine);
  WriteSmbios(machine, SmbiosTable()
                           .AddSlot({.id = 4, .bus = 0x17})
                           .AddSlot({.id = 5, .type = 0xB6, .usage = 3, .bus = 0xFF})
                           .AddSlot({.id = 6, .type = 6, .bus = 0x18, .device = 0})
                           .AddOnboardDevice(0x5E, 0)
                           .AddEnd());
  WriteRoutingTable(machine, {{0x17, 0, 4}, {0x18, 0, 6}, {0x18, 0, 6}, {0x30, 2, 9}, {0, 0x1F, 0}});
  EXPECT_EQ(machine.Ravctl("slots -o number,type_text,usage,address,card,sources").out,
            "SLOT TYPE       USE       ADDRESS      CARD                          SAID BY\n"
            "4    x16 PCIe   In use    0000:17:00.0 Quad \\x1b[31mPort [8086:1521] SMBIOS type 9 (0x0000), $PIR\n"
            "5    PCIe 3 x16 Available -            -                             SMBIOS type 9 (0x0001)\n"
            "6    x16 PCI    In use    0000:18:00.0 RAID controller [1000:ff16]   SMBIOS type 9 (0x0002), $PIR\n"
            "9    -          -         0000:30:02.0 -                             $PIR\n");
  EXPECT_EQ(machine.Json("slots --onboard -m onboard*")["data"][0]["functions"][0], "0000:5e:00.0");
  EXPECT_THAT(Values(machine.Json("slots --usage available")["data"], "number"), ElementsAre("5"));
}

// Of one card with a subsystem that the ID file names and one that it does not; of two segments.
TEST(Pci, NamesAndDriversAreThoseOfLspciAndSysfs) {
  const ToolRoot machine;
  machine.WriteFile("/etc/pelrix/Adapter.ini", "[10DE]\nVendor=Kestrel\n1EB8=Own Name\n");
  const auto add = [&machine](const char* bus, uint16_t vendor, uint16_t device, uint16_t subVendor,
                              uint16_t subDevice) {
    AddFunction(machine, {.bus = bus,
                          .vendor = vendor,
                          .device = device,
                          .classCode = 0x020000,
                          .subVendor = subVendor,
                          .subDevice = subDevice});
  };
  add("01", 0x8086, 0x1521, 0x8086, 0x0001);
  add("02", 0x15B3, 0x1017, 0x15B3, 0xFFFE);
  add("03", 0x10DE, 0x1EB8, 0x10DE, 0x12A2);
  add("04", 0xFFFE, 0x0001, 0, 0);
  AddFunction(machine, {.bus = "0001:01", .device = 0x1521, .classCode = 0x020000});
  std::string fields;
  for (int each = 0; each < 14; ++each)
    fields += "\t0";
  machine.WriteFile("/proc/bus/pci/devices",
                    "0100\t80861521\t0" + fields + "\tigb\n0200\t15b31017\t0" + fields + "\tmlx5_core\n");
  for (const char* place : {"0000:01:00.0", "0001:01:00.0"})
    machine.WriteFile(std::string("/sys/bus/pci/devices/") + place + "/vendor", "0x8086\n");
  machine.MakeLink("/sys/bus/pci/devices/0001:01:00.0/driver", "../../../bus/pci/drivers/vfio-pci");
  machine.WriteFile("/sys/bus/pci/devices/10000:e1:00.0/config",
                    BuildHeader({.vendor = 0x144D, .device = 0xFFA8, .classCode = 0x010802}));
  machine.Run([] { EXPECT_EQ(std::system("lspci -A linux-proc -vmm -nn >/tmp/said 2>&1"), 0); }, FixtureRoot::kUsr);
  const std::string said = machine.ReadFile("/tmp/said");
  const nlohmann::json pci = machine.Json("pci")["data"];
  EXPECT_THAT(Values(pci, "address"), ElementsAre("0000:01:00.0", "0000:02:00.0", "0000:03:00.0", "0000:04:00.0",
                                                  "0001:01:00.0", "10000:e1:00.0"));
  EXPECT_THAT(Values(pci, "names_from"), ElementsAre("pci.ids", "pci.ids", "Adapter.ini", "-", "pci.ids", "-"));
  EXPECT_THAT(Values(pci, "driver"), ElementsAre("-", "mlx5_core", "-", "-", "vfio-pci", "-"));
  EXPECT_EQ(pci[2]["vendor"].get<std::string>() + " " + pci[2]["product"].get<std::string>(), "Kestrel Own Name");
  for (const size_t row : {0U, 1U}) {
    EXPECT_THAT(said, HasSubstr("Vendor:\t" + pci[row]["vendor"].get<std::string>() + " [")) << row;
    EXPECT_THAT(said, HasSubstr("Device:\t" + pci[row]["product"].get<std::string>() + " [")) << row;
  }
  EXPECT_EQ(pci[1]["subsystem"], pci[1]["vendor"]);
  EXPECT_THAT(pci[0]["subsystem"].get<std::string>(), HasSubstr(pci[0]["vendor"].get<std::string>() + " "));
}

// Root ports share a device number; empty slots bear zeros, or the port that leads nowhere.
TEST(Slots, FunctionsBridgesAndEmptySlots) {
  const ToolRoot machine;
  const auto bridge = [&machine](const char* bus, const char* name, uint8_t secondary) {
    AddFunction(machine,
                {.bus = bus, .name = name, .classCode = 0x060400, .headerType = 0x81, .secondaryBus = secondary});
  };
  AddFunction(machine, {.name = "00.0", .device = 0x2020});
  bridge("00", "1c.0", 1);
  bridge("00", "1c.3", 2);
  bridge("00", "1c.5", 4);
  bridge("02", "00.0", 3);
  AddFunction(machine, {.bus = "01", .device = 0x1111, .classCode = 0x020000});
  AddFunction(machine, {.bus = "03", .device = 0x3333, .classCode = 0x010700});
  AddFunction(machine, {.bus = "03", .name = "00.1", .device = 0x3334, .classCode = 0x010700});
  AddFunction(machine, {.name = "1f.2", .device = 0x2829, .classCode = 0x010601});
  WriteSmbios(machine, SmbiosTable()
                           .AddSlot({.id = 1, .device = 0x1C})
                           .AddSlot({.id = 2, .device = 0x1C, .function = 3})
                           .AddSlot({.id = 3, .usage = 3, .device = 0x1C, .function = 5})
                           .AddSlot({.id = 4, .usage = 3})
                           .AddSlot({.id = 5, .usage = 3, .device = 0x1F, .function = 2})
                           .AddSlot({.id = 6, .device = 0x1C, .function = 6})
                           .AddEnd());
  EXPECT_EQ(machine.Ravctl("slots -o number,address,card,functions --no-headings").out,
            "1    0000:00:1c.0 Ethernet controller [8086:1111] 0000:01:00.0\n"
            "2    0000:00:1c.3 SAS controller [8086:3333]      0000:02:00.0, 0000:03:00.0, 0000:03:00.1\n"
            "3    0000:00:1c.5 -                               -\n"
            "4    0000:00:00.0 -                               -\n"
            "5    0000:00:1f.2 -                               -\n"
            "6    0000:00:1c.6 -                               -\n");
  const nlohmann::json pci = machine.Json("pci")["data"];
  EXPECT_THAT(Values(pci, "slot"), ElementsAre("-", "1", "2", "3", "-", "1", "2", "2", "2"));
  EXPECT_THAT(Values(machine.Json("inventory adapters")["data"], "slot"), ElementsAre("-", "-", "1", "2", "2"));
}

}  // namespace
