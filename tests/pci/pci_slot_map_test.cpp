#include "pci/pci_slot_map.h"

#include "support/firmware_tables.h"
#include "support/trace_capture.h"

namespace {

void WriteTables(const FixtureRoot& root, off_t place, const std::string& irqTable, const SmbiosTable& smbios) {
  root.MakeSparseFile("/dev/mem", 0x100000);
  root.WriteAt("/dev/mem", place, irqTable);
  WriteSmbios(root, smbios);
}

// The slot of a device, -1 when none is found and the output is 0.
int SlotOf(CPciSlotMap& map, unsigned int bus, unsigned int device) {
  unsigned char slot = 99;
  const bool found = map.GetPciSlotNumber(slot, bus, device, 0, 0);
  return found ? slot : slot == 0 ? -1 : -2;
}

}  // namespace

TEST(PciSlotData, TypeDecidesHowAnEntryMatches) {
  for (unsigned int type = 0; type <= 0xFF; ++type) {
    const PciSlotData entry{0x3B, 2, 4, static_cast<uint8_t>(type), 4};
    const bool serial = (type >= 0x14 && type <= 0x23) || (type >= 0xA5 && type <= 0xB6);
    EXPECT_EQ(entry.IsSerialBus(), serial) << type;
    EXPECT_EQ(entry == (PciSlotData{0x3B, 3, 0, 2, 2}), serial) << type;
    EXPECT_FALSE(entry.Matches(0x13B, 2));
    const std::string kind = type <= 2 ? "Unknown bus type" : serial ? "Serial bus" : "Parallel bus";
    EXPECT_EQ(entry.ToString(), "PciSlotData 3b:2.** --> Slot 4 (" + kind + ")");
  }
}

using PciSlotMap = RootedTest;

TEST_F(PciSlotMap, IrqTableNumbersAndSmbiosCorrectsTypes) {
  SmbiosTable smbios;
  smbios.AddSlot({.type = 6, .bus = 6, .device = 9}).AddSlot({.type = 6, .usage = 3, .bus = 5, .device = 3});
  smbios.AddSlot({.bus = 5}).AddEnd();
  // The routing table lies as far back as it may.
  WriteTables(root, 0xFFF80, IrqRoutingTable({{0, 3, 0}, {5, 3, 7}, {5, 4, 9}, {6, 1, 8}}), smbios);
  RunTraced(root, 4, [](TraceCapture& trace) {
    CPciSlotMap map;
    EXPECT_EQ(SlotOf(map, 5, 17), 9);  // serial now: the bus alone decides; 7 stays parallel
    EXPECT_EQ(SlotOf(map, 5, 3), 7);   // the first one: the types alone come from SMBIOS, not the usage
    EXPECT_EQ(SlotOf(map, 6, 1), 8);
    EXPECT_EQ(SlotOf(map, 6, 9), -1);  // known to SMBIOS alone
    EXPECT_EQ(SlotOf(map, 0, 3), 0);
    EXPECT_EQ(trace.Count("Updated slot type:"), 2);
    EXPECT_EQ(trace.Count("Could not match with any SMBios entry:"), 2);
    EXPECT_TRUE(trace.Has("\tPciSlotData 5:4.** --> Slot 9 (Serial bus)"));
    EXPECT_EQ(trace.Count("Attempt to get Slot Mapping from"), 2);  // gathered once
  });
}

TEST_F(PciSlotMap, SmbiosAloneAndInUseSlotsWin) {
  const std::string shortSlot("\1\xA5\x0D\x04\4\x09\0\0\0\0\0\7", 12);  // ends behind its bus
  SmbiosTable smbios;
  smbios.AddSlot({.id = 1, .type = 6, .usage = 3, .bus = 2, .device = 1}).AddSlot({.id = 7, .bus = 0xFF});
  smbios.AddSlot({.id = 5, .type = 6, .bus = 2, .device = 1}).AddSlot({.id = 6, .usage = 5, .bus = 8});
  smbios.Add(9, shortSlot).Add(41, "short").AddOnboardDevice(4, 0).AddSlot({.id = 3, .bus = 4}).AddOnboardDevice(9, 2);
  WriteTables(root, 0xF0000, "", smbios.AddEnd());
  RunTraced(root, 4, [](TraceCapture& trace) {
    CPciSlotMap map;
    EXPECT_EQ(SlotOf(map, 2, 1), 5);
    EXPECT_EQ(SlotOf(map, 4, 0), 3);
    EXPECT_EQ(SlotOf(map, 4, 31), 3);
    EXPECT_EQ(SlotOf(map, 9, 2), 0);
    for (const unsigned int bus : {7U, 8U, 0xFFU, 0x104U})
      EXPECT_EQ(SlotOf(map, bus, 0), -1) << bus;
    EXPECT_TRUE(trace.Has("CPciSlotMap::GetSlotMappingFromSMBIOS(): Success! Gathered 5 slots from SMBios"));
  });
}

TEST_F(PciSlotMap, BrokenIrqTablesAreDiscardedWhole) {
  const auto changed = [](size_t place, char value) {
    std::string table = IrqRoutingTable({{5, 0, 7}});
    table[place] = value;
    if (place != 31) SetChecksum(table, 31, table.size());
    return table;
  };
  const std::string start = "CDeviceBiosBase::GetRoutingTable   : ## ERROR! ";
  const std::tuple<off_t, std::string, std::string> rows[] = {
      {0xF0000, changed(31, 0x11) + IrqRoutingTable({{5, 1, 8}}),  // the first one decides
       start + "Illegal checksum in PCI IRQ Routing Table (DD)"},
      {0xF0000, changed(5, 11), start + "Illegal version number in PCI IRQ Routing Table (11.0)"},
      {0xF0000, changed(4, 21), start + "Illegal version number in PCI IRQ Routing Table (1.21)"},
      {0xF0000, changed(6, 0x28),
       start + "PCI IRQ Routing Table size modulo sizeof (IRQ_ROUTING_TABLE_ENTRY) is not zero (8)"},
      {0xF0000, changed(6, 0), start + "Illegal table size in PCI IRQ Routing Table (0)"},
      {0xF0000, changed(6, 0x10), start + "Illegal table size in PCI IRQ Routing Table (16)"},
      {0xF0100, changed(7, '\xFF'), start + "Illegal table size in PCI IRQ Routing Table (65328)"},
      {0xFFFC0, changed(0, '$'), start + "Illegal table size in PCI IRQ Routing Table (48)"},
      {0xFFFF0, changed(0, '$').substr(0, 16), start + "Illegal table size in PCI IRQ Routing Table (48)"},
      {0xF0008, changed(0, '$'), "CPciSlotMap::GetSlotMappingFromIrqRoutingTable(): ERROR ## Empty IRQ Routing Table."},
  };
  for (const auto& [place, table, error] : rows) {
    WriteTables(root, place, table, SmbiosTable().AddSlot({.id = 3, .bus = 5}).AddEnd());
    RunTraced(root, 4, [&error = error](TraceCapture& trace) {
      CPciSlotMap map;
      EXPECT_EQ(SlotOf(map, 5, 1), 3) << error;
      EXPECT_TRUE(trace.Has(error)) << error;
    });
  }
}

TEST_F(PciSlotMap, NothingIsAskedForOnce) {
  RunTraced(root, 4, [](TraceCapture& trace) {
    CPciSlotMap map;
    EXPECT_EQ(SlotOf(map, 0, 0), -1);
    EXPECT_EQ(SlotOf(map, 0, 0), -1);
    EXPECT_TRUE(trace.Has("## ERROR: Opening of /dev/mem failed (errno=2)!"));
    EXPECT_TRUE(trace.Has("CDeviceBiosBase::GetRoutingTable   : ERROR! Could not map physical memory at 0xF0000"));
    EXPECT_EQ(trace.Count("CPciSlotMap::GetSlotMapping(): ERROR # No slot data found on this machine!"), 1);
    EXPECT_EQ(trace.Count("CPciSlotMap::GetPciSlotNumber() : ERROR ## Could not retrieve slot mapping."), 2);
  });
}
