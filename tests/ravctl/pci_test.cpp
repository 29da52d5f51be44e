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
            "0000:00:01.0     8086:2030 4          00 -> 17 PCI-to-PCI bridge\n"
            "├─0000:17:00.0   8086:1521 4 (bridge) -        Kestrel Quad \\x1b[31mPort\n"
            "└─0000:17:01.0   8086:0d57 4 (bridge) 00 -> 18 PCI-to-PCI bridge\n"
            "  └─0000:18:00.0 1000:0016 3          -        RAID controller\n"
            "0000:5e:00.0     144d:a808 -          -        Mass storage controller\n");
}

TEST(Pci, FiltersAndBadInput) {
  const std::pair<const char*, const char*> rows[] = {
      {"--id 8086:", "0000:00:01.0\n0000:17:00.0\n"},
      {"--id :A808", "0000:5e:00.0\n"},
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
            "6    x16 PCI    In use    0000:18:00.0 RAID controller [1000:0016]   SMBIOS type 9 (0x0002), $PIR\n"
            "9    -          -         0000:30:02.0 -                             $PIR\n");
  EXPECT_EQ(machine.Json("slots --onboard -m onboard*")["data"][0]["functions"][0], "0000:5e:00.0");
  EXPECT_THAT(Values(machine.Json("slots --usage available")["data"], "number"), ElementsAre("5"));
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
  EXPECT_EQ(
      machine.Ravctl("slots -o number,address,card,functions --no-headings").out,
      "1 0000:00:1c.0 Ethernet controller [8086:1111]                 0000:01:00.0\n"
      "2 0000:00:1c.3 Serial Attached SCSI (SAS) controller [8086:3333] 0000:02:00.0, 0000:03:00.0, 0000:03:00.1\n"
      "3 0000:00:1c.5 -                                               -\n"
      "4 0000:00:00.0 -                                               -\n"
      "5 0000:00:1f.2 -                                               -\n"
      "6 0000:00:1c.6 -                                               -\n");
  const nlohmann::json pci = machine.Json("pci")["data"];
  EXPECT_THAT(Values(pci, "slot"), ElementsAre("-", "1", "2", "3", "-", "1", "2", "2", "2"));
  EXPECT_THAT(Values(machine.Json("inventory adapters")["data"], "slot"), ElementsAre("-", "-", "1", "2", "2"));
}

}  // namespace
