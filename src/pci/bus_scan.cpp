#include "pci/bus_scan.h"

#include "pci/isa_device_scan.h"
#include "pci/mac_information.h"
#include "pci/pci_function_scan.h"
#include "trace/debug.h"

namespace {

BusTableEntry* s_Cursor = nullptr;
bool s_TablesBuilt = false;

// The key words as the traces show them.
struct Words {
  explicit Words(const BusKey& key)
      : w0(static_cast<int>(key.word0)),
        w1(static_cast<int>(key.word1)),
        w2(static_cast<int>(key.word2)),
        w3(static_cast<int>(key.word3)),
        w4(static_cast<int>(key.word4)) {}
  int w0, w1, w2, w3, w4;
};

template <typename TraceEntry>
void ForUnused(const BusTable& table, TraceEntry traceEntry) {
  for (const BusTableEntry* entry = table.first; entry != nullptr; entry = entry->next) {
    if (entry->used == 0) traceEntry(Words(entry->key));
  }
}

void TraceUnused(const BusTables& tables) {
  ForUnused(tables.functions, [](Words k) { TRACE(3, "Unused Function %d.%d.%d.%d!\n", k.w0, k.w1, k.w2, k.w3); });
  ForUnused(tables.pcis, [](Words k) { TRACE(3, "Unused Pci %d.%d.%d!\n", k.w0, k.w1, k.w2); });
  ForUnused(tables.memories,
            [](Words k) { TRACE(3, "Unused Memory %d.%d.%d.%d.%d!\n", k.w0, k.w1, k.w2, k.w3, k.w4); });
  ForUnused(tables.irqs, [](Words k) { TRACE(3, "Unused Irq %d.%d.%d.%d.%d!\n", k.w0, k.w1, k.w2, k.w3, k.w4); });
  ForUnused(tables.dmas, [](Words k) { TRACE(3, "Unused Dma %d.%d.%d.%d.%d!\n", k.w0, k.w1, k.w2, k.w3, k.w4); });
  ForUnused(tables.ports, [](Words k) { TRACE(3, "Unused Port %d.%d.%d.%d.%d!\n", k.w0, k.w1, k.w2, k.w3, k.w4); });
  ForUnused(tables.components, [](Words k) { TRACE(3, "Unused Component %d.%d.%d!\n", k.w0, k.w1, k.w2); });
}

// An entry is marked as shared when a later one has its number. The last entry of a number is not, so that a client
// who counts the marks does not count one IRQ line twice. What is no longer in use shares nothing.
void SetIrqSharing(const BusTable& table) {
  for (BusTableEntry* entry = table.first; entry != nullptr; entry = entry->next) {
    const BusTableEntry* later = entry->used != 0 ? entry->next : nullptr;
    while (later != nullptr && (later->used == 0 || later->irq.irq != entry->irq.irq))
      later = later->next;
    entry->irq.sharing = later != nullptr ? kIrqShared : kIrqNotShared;
  }
}

}  // namespace

void BusBuildTables() {
  BusTables& tables = GetBusTables();
  for (BusTable* table :
       {&tables.functions, &tables.memories, &tables.irqs, &tables.dmas, &tables.ports, &tables.components}) {
    BusClearUsed(*table, true);
  }
  BusClearUsed(tables.pcis, false);
  ScanPciFunctions();
  ScanIsaDevices();
  TraceUnused(tables);
  SetIrqSharing(tables.irqs);
  BusGetMACInformation();
}

BusTableEntry* BusGetNextTableEntry(int next) {
  if (next != 0) {
    if (s_Cursor != nullptr) s_Cursor = s_Cursor->next;
    return s_Cursor;
  }
  if (!s_TablesBuilt) {
    s_TablesBuilt = true;
    BusBuildTables();
  }
  s_Cursor = GetBusTables().functions.first;
  return s_Cursor;
}
