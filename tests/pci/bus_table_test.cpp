#include "pci/bus_table.h"

#include "pci/legacy_class_table.h"
#include "support/fixture_root.h"

namespace {

// Entries are never freed; what a test allocates stays reachable here.
BusTableEntry* Keep(BusTableEntry* entry) {
  static auto& kept = *new std::vector<BusTableEntry*>;
  kept.push_back(entry);
  return entry;
}

BusTableEntry* NewFunction(int64_t bus, int64_t device) {
  const BusKey key = {kBusTypePci, bus, device, 1, 0};
  return Keep(BusAllocateFunctionEntry(&key));
}

std::vector<int64_t> Buses(const BusTable& table) {
  std::vector<int64_t> buses;
  for (const BusTableEntry* entry = table.first; entry != nullptr; entry = entry->next)
    buses.push_back(entry->function.bus);
  return buses;
}

BusKey KeyOf(int64_t bus) {
  return {kBusTypePci, bus, 0, 1, 0};
}

// The tables live as long as the process; a test that fills them leaves them empty for the next one.
class BusTableTest : public ::testing::Test {
 protected:
  ~BusTableTest() override { GetBusTables() = {}; }
  BusTable& m_Table = GetBusTables().functions;
};

}  // namespace

TEST_F(BusTableTest, StaysSortedWhateverTheOrderOfInsertion) {
  std::vector<BusTableEntry*> entries;
  for (const int64_t bus : {4, 2, 9, -3, 6, 2}) {
    entries.push_back(Keep(BusAllocateFunctionEntry(nullptr)));
    entries.back()->function.bus = bus;
    BusInsertTable(m_Table, entries.back());
  }
  EXPECT_EQ(Buses(m_Table), (std::vector<int64_t>{-3, 2, 2, 4, 6, 9}));
  EXPECT_EQ(m_Table.first->next, entries[1]) << "equal keys stay in the order of insertion";
  for (BusTableEntry* entry : entries)
    BusInsertTable(m_Table, entry);
  EXPECT_EQ(Buses(m_Table).size(), 6U) << "nothing is inserted twice";
}

TEST_F(BusTableTest, SearchModes) {
  BusTableEntry* entries[4];
  for (const int64_t bus : {0, 1, 2, 3}) {
    entries[bus] = NewFunction(10 * bus, 0);
    BusInsertTable(m_Table, entries[bus]);
  }
  entries[1]->used = 0;
  entries[3]->used = 0;
  BusInsertTable(m_Table, entries[2]);  // nothing new, but walks begin at the unused entry before it now
  constexpr int kNone = -1;
  // Mode, bus of the key, only used entries => number of the entry.
  constexpr std::tuple<int, int64_t, bool, int> kRows[] = {
      {0, 20, false, 2},  {0, 15, false, kNone}, {0, 10, true, kNone}, {1, 10, false, 2},     {1, 20, true, kNone},
      {-1, 15, false, 1}, {-1, 15, true, 0},     {-1, 99, true, 2},    {-1, -1, false, kNone}};
  for (const auto& [mode, bus, onlyUsed, found] : kRows) {
    EXPECT_EQ(BusSearchTable(m_Table, mode, KeyOf(bus), onlyUsed), found == kNone ? nullptr : entries[found])
        << mode << " " << bus;
  }
}

TEST_F(BusTableTest, AllocationReusesTheEntryOfTheKey) {
  BusTableEntry* const function = NewFunction(1, 2);
  BusInsertTable(m_Table, function);
  BusTableEntry* const first = Keep(BusAllocateIrqEntry(function));
  BusInsertTable(GetBusTables().irqs, first);
  first->irq.irq = 9;
  BusTableEntry* const second = Keep(BusAllocateIrqEntry(function));
  EXPECT_TRUE(first != second && second->irq.number == 2 && second->owner == function);

  function->function.deviceName.Assign("left over");
  function->used = 0;
  EXPECT_EQ(NewFunction(1, 2), function);
  EXPECT_TRUE(function->used == 1 && function->function.deviceName.IsEmpty());
  EXPECT_EQ(Keep(BusAllocateIrqEntry(function)), first) << "the numbers of the resources start anew";
  EXPECT_TRUE(first->irq.irq == -1 && first->irq.sharing == kIrqSharingUnset);
}

TEST_F(BusTableTest, DefaultKeysAndValues) {
  const BusTableEntry* const memory = Keep(BusAllocateMemoryEntry(nullptr));
  EXPECT_TRUE(memory->key.word1 == 1 && memory->key.word4 == 1 && memory->memory.kind == 1);
  const BusTableEntry* const pci = Keep(BusAllocatePciEntry(nullptr));
  EXPECT_TRUE(pci->key.word0 == 1 && pci->key.word2 == 1 && pci->pci.baseClass == 255);
  const BusKey functionKey = {kBusTypePci, 1, 2, 7, 12};
  const BusTableEntry* const component = Keep(BusAllocateComponentEntry(&functionKey));
  EXPECT_EQ(component->component.slot, -1);
  EXPECT_EQ(component->component.name.length, 0U) << "words behind the key do not reach the values";
  EXPECT_EQ(Keep(BusAllocateDmaEntry(nullptr))->dma.channel, -1);
  EXPECT_EQ(Keep(BusAllocatePortEntry(nullptr))->port.word7, 3);
}

TEST(CountedString, OwnsItsText) {
  CCountedString text = {};
  EXPECT_TRUE(text.Assign("one") && text.Concatenate(" two") && text.Concatenate(nullptr));
  EXPECT_STREQ(text.Text(), "one two");
  EXPECT_EQ(text.length, 7U);
  CCountedString holder = text;
  text.Invalidate();
  EXPECT_STREQ(text.Text(), "");
  holder.Empty();
  EXPECT_EQ(holder.text, nullptr);
}

TEST(LegacyClasses, TheFirstRowThatMatchesWins) {
  // Base class, subclass, interface, vendor => name and type.
  constexpr std::tuple<uint8_t, uint8_t, uint8_t, uint16_t, const char*, int64_t> kRows[] = {
      {0x02, 0x07, 0x00, 1, "Network controller", kComponentNetwork},
      {0x03, 0x00, 0x01, 1, "8514 compatible controller", kComponentDisplay},
      {0x03, 0x00, 0x02, 1, "VGA compatible controller", kComponentDisplay},
      {0x06, 0x04, 0x01, 1, "PCI-to-PCI bridge (subtractive)", kComponentBridge},
      {0x09, 0x04, 0x10, 1, "Game controller", kComponentSerial},
      {0x0C, 0x00, 0x00, 1, "Firewire (IEEE 1394)", kComponentStorage},
      {0x0C, 0x03, 0x30, 1, "USB controller", kComponentOther},
      {0x0E, 0x00, 0x00, 0x1044, "I2O raid controller", kComponentStorage},
      {0x0E, 0x00, 0x00, 0x1045, "I2O controller", kComponentOther},
      {0x0F, 0x00, 0x00, 1, "Satellite communication controller", kComponentOther},
      {0x12, 0x00, 0x00, 1, "Other", kComponentOther},
  };
  for (const auto& [baseClass, subClass, interface, vendor, name, type] : kRows) {
    const LegacyClass found = FindLegacyPciClass(baseClass, subClass, interface, vendor, 0x1234);
    EXPECT_STREQ(found.name, name);
    EXPECT_EQ(found.type, type) << name;
  }
  EXPECT_STREQ(FindLegacyIsaClass("dma page reg").name, "ISA DMA");
  EXPECT_EQ(FindLegacyIsaClass("aha152x").type, kComponentStorage);
  EXPECT_STREQ(FindLegacyIsaClass("rtc1").name, "Unknown Device");
}
