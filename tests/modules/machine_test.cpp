// What ravd-machine finds on made-up machines, how it is told, and what two looks have changed.

#include "machine/machine_query.h"
#include "machine/machine_scan.h"
#include "support/firmware_tables.h"
#include "support/pci_fixture.h"

using ::testing::HasSubstr, ::testing::Not;

namespace {

using Machine = RootedTest;

std::string MemoryDevice(uint16_t size, uint32_t extended = 0) {
  return std::string(8, '\0') + LittleEndian(size, 2) + std::string(2, '\1').replace(1, 1, 1, '\0') + "\x01\x02\x1A" +
         std::string(4, '\0') + "\x03\x04" + std::string(1, '\0') + "\x05" + std::string(1, '\0') +
         LittleEndian(extended, 4);
}

std::string Hardware(bool withSerialNumbers = false) {
  return ToText(ScanMachine(withSerialNumbers));
}

}  // namespace

TEST_F(Machine, FirmwareAndFunctionsAreToldWithSlots) {
  AddFunction(root, {.bus = "03", .name = "00.0", .vendor = 0x8086, .device = 0x10d3, .classCode = 0x020000});
  // Ports that firmware names instead of what is behind them: a card, and nothing.
  AddFunction(root, {.name = "1c.0", .classCode = 0x060400, .headerType = 0x81, .secondaryBus = 3});
  AddFunction(root, {.name = "1d.0", .classCode = 0x060400, .headerType = 0x81, .secondaryBus = 0x20});
  SmbiosTable table;
  table.Add(0, std::string("\x01\x02") + std::string(2, '\0') + "\x03", {"Firm", "1.2", "2026/01/02"});
  table.Add(1, std::string("\x01\x02\x00\x03", 4), {"Maker", " Model ", "S-1"});
  table.AddSlot({.id = 3, .usage = 4, .bus = 3})
      .AddSlot({.id = 4, .usage = 3, .bus = 3})
      .AddSlot({.id = 4, .usage = 2, .bus = 9});
  table.AddSlot({.id = 5, .usage = 4, .bus = 7});
  table.AddSlot({.id = 6, .usage = 4, .device = 0x1c}).AddSlot({.id = 7, .usage = 3, .device = 0x1d});
  table.Add(17, MemoryDevice(0x7FFF, 65536), {"DIMM A1", "Bank 0", "Chips", "S-2", "P\t7"})
      .Add(17, MemoryDevice(0), {"DIMM A2"});
  table.Add(17, MemoryDevice(0xFFFF), {"DIMM A3"}).Add(17, std::string(9, '\1'), {"short"});
  table.AddEnd();
  WriteSmbios(root, table);
  root.Run([] {
    const std::string text = Hardware();
    for (
        const char* line :
        {"machine\tmachine\tvendor=Maker\tproduct=Model\tbios_version=1.2\tbios_date=2026/01/02\n",
         "address=0000:03:00.0\toccupied=1\tconflict=0\n", "address=0000:03:00.0\toccupied=0\tconflict=1\n",
         "address=0000:09:00.0\tconflict=1\n", "address=0000:07:00.0\toccupied=1\tconflict=1\n",
         "address=0000:00:1c.0\toccupied=1\tconflict=0\n", "address=0000:00:1d.0\toccupied=0\tconflict=0\n",
         "adapter\t0000:03:00.0\taddress=0000:03:00.0\tslot=3\tslot_source=firmware\tkind=net\tvendor_id=0x8086\tdevice_id=0x10d3\n",
         "dimm\tDIMM A1 Bank 0\tlocator=DIMM A1\tbank=Bank 0\tmanufacturer=Chips\tpart=P\\t7\ttype=DDR4\tsize=68719476736\n",
         "dimm\tDIMM A3 \tlocator=DIMM A3\ttype=DDR4\n"})
      EXPECT_THAT(text, HasSubstr(line));
    EXPECT_THAT(text, Not(HasSubstr("S-")));
    EXPECT_THAT(text, Not(HasSubstr("A2")));
    EXPECT_THAT(Hardware(true), HasSubstr("\tserial=S-1\t"));
  });
}

TEST_F(Machine, DrivesOfOtherBusesAndNothingAtAll) {
  root.MakeDirectory("/sys/devices/pci0000:00/0000:04:00.0/virtio1/block/vda/device");
  root.WriteFile("/sys/devices/pci0000:00/0000:04:00.0/virtio1/block/vda/size", "2048\n");
  root.MakeLink("/sys/block/vda", "../devices/pci0000:00/0000:04:00.0/virtio1/block/vda");
  root.MakeDirectory("/sys/block/loop0");
  root.Run([] {
    EXPECT_THAT(Hardware(), HasSubstr("drive\tvda\tdevice=vda\taddress=0000:04:00.0\tsize=1048576\n"));
    EXPECT_THAT(Hardware(), Not(HasSubstr("loop0")));
  });
  root.Remove("/sys");
  root.Run([] { EXPECT_THAT(Hardware(), Not(::testing::ContainsRegex("^(drive|adapter|slot|dimm)"))); });
}

TEST(MachineRecords, GoThereAndBackAndCutOnesAreRefused) {
  const MachineRecords records = {
      {"drive", "S\t1", {{"model", "a\\b\nc"}, {"size", "1"}}}, {"slot", "", {}}, {"slot", "2", {}}};
  const std::string text = ToText(records);
  MachineRecords back = {{"old", "", {}}};
  for (size_t length = 0; length < text.size(); ++length) {
    ASSERT_FALSE(ParseRecords(text.substr(0, length), back)) << length;
    ASSERT_EQ(back.size(), 1U);
  }
  ASSERT_TRUE(ParseRecords("\n\t\t\nkind\nkind\tkey\tfield\n" + text, back));
  EXPECT_EQ(back, (MachineRecords{records[0], records[2]}));  // one without a key or a field is none
}

TEST(MachineRecords, WhatHasChanged) {
  const MachineRecords before = {{"drive", "1", {{"slot", "3"}, {"firmware", "A"}}},
                                 {"dimm", "A1", {}},
                                 {"volume", "/", {{"size", "1"}}},
                                 {"adapter", "x", {{"lanes", "8"}}}};
  const MachineRecords after = {{"drive", "1", {{"slot", "3"}, {"firmware", "B"}, {"model", "M"}}},
                                {"drive", "2", {{"slot", "4"}}},
                                {"scan", "pci", {}},
                                {"adapter", "x", {}}};
  std::string text;
  for (const MachineChange& change : CompareMachines(before, after)) {
    text += std::string(ToText(change.change)) + " " + change.kind + " " + change.key + " slot " + change.slot + " " +
            change.field + " " + change.before + ">" + change.after + "\n";
  }
  EXPECT_EQ(text,
            "changed adapter x slot  lanes 8>\nremoved dimm A1 slot   >\n"
            "changed drive 1 slot 3 firmware A>B\nchanged drive 1 slot 3 model >M\nadded drive 2 slot 4  >\n");
  EXPECT_TRUE(CompareMachines(after, after).empty());
}

TEST(MachineQuery, AnswersDeadlinesAndStops) {
  MachineRecords records;
  EXPECT_TRUE(MachineQuery(MACHINE_PROGRAM).Ask("volumes", 60'000, records));
  const FixtureRoot root;
  const auto script = [&](const std::string& text) {
    root.WriteFile("/program", "#!/bin/sh\n" + text + "\n", 0755);
    return root.HostPath("/program").string();
  };
  const MachineRecords old = records = {{"old", "", {}}};
  EXPECT_FALSE(MachineQuery("/nowhere").Ask("volumes", 1000, records));
  EXPECT_FALSE(MachineQuery(script("echo 'slot\t1'")).Ask("volumes", 10'000, records));
  EXPECT_FALSE(MachineQuery(script("cat /dev/zero")).Ask("volumes", 60'000, records));
  EXPECT_FALSE(MachineQuery(script("exec sleep 1000")).Ask("volumes", 20, records));
  EXPECT_EQ(records, old);
  EXPECT_TRUE(MachineQuery(script("echo \"slot\t$1 $2\"; echo end")).Ask("hardware serials", 60'000, records));
  EXPECT_EQ(records, (MachineRecords{{"slot", "hardware serials", {}}}));
  MachineQuery query(script("exec sleep 1000"));
  std::thread stopper([&] {
    ::usleep(20'000);
    query.Stop();
  });
  EXPECT_FALSE(query.Ask("hardware", 1'000'000, records));
  EXPECT_FALSE(query.Ask("hardware", 1'000'000, records));
  stopper.join();
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
}
