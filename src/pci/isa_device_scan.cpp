#include "pci/isa_device_scan.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <string>
#include <string_view>

#include "pci/bus_table.h"
#include "pci/legacy_class_table.h"
#include "pci/line_reader.h"
#include "pci/resource_lines.h"
#include "trace/debug.h"

namespace {

constexpr const char* kInterrupts = "/proc/interrupts";
constexpr const char* kDma = "/proc/dma";
constexpr const char* kIoPorts = "/proc/ioports";
constexpr int64_t kMaxRefreshedLength = 256;

template <typename Condition>
BusTableEntry* FindUsed(const BusTable& table, Condition fits) {
  BusTableEntry* entry = table.first;
  while (entry != nullptr && (entry->used == 0 || !fits(*entry)))
    entry = entry->next;
  return entry;
}

BusTableEntry* AddFunctionEntry(const char* name) {
  BusTables& tables = GetBusTables();
  const BusKey key = {kBusTypeIsa, 1, 0, tables.isaDevices + 1, 0};
  BusTableEntry* const entry = BusAllocateFunctionEntry(&key);
  if (entry == nullptr) return nullptr;
  ++tables.isaDevices;
  const LegacyClass found = FindLegacyIsaClass(name);
  entry->function.deviceName.Assign(name);
  entry->function.className.Assign(found.name);
  entry->function.type = found.type;
  entry->function.slot = -1;
  BusInsertTable(tables.functions, entry);
  return entry;
}

// The ISA device of that name. A PCI function of the same name is another device.
BusTableEntry* GetFunctionEntry(std::string_view name) {
  BusTableEntry* const entry = FindUsed(GetBusTables().functions, [name](const BusTableEntry& each) {
    return each.function.busType == kBusTypeIsa && name == each.function.deviceName.Text();
  });
  return entry != nullptr ? entry : AddFunctionEntry(std::string(name).c_str());
}

BusTableEntry* AddIrq(std::string_view name, int number) {
  BusTableEntry* const owner = GetFunctionEntry(name);
  BusTableEntry* const entry = owner != nullptr ? BusAllocateIrqEntry(owner) : nullptr;
  if (entry == nullptr) return nullptr;
  BusIrq& irq = entry->irq;
  irq.word5 = 1;
  irq.trigger = 2;
  irq.sharing = kIrqNotShared;
  irq.irq = number;
  irq.deviceName.Assign(owner->function.deviceName.Text());
  BusInsertTable(GetBusTables().irqs, entry);
  return entry;
}

void AddDma(std::string_view name, int channel) {
  BusTableEntry* const owner = GetFunctionEntry(name);
  BusTableEntry* const entry = owner != nullptr ? BusAllocateDmaEntry(owner) : nullptr;
  if (entry == nullptr) return;
  BusDma& dma = entry->dma;
  dma.channel = channel;
  dma.word6 = 2;
  if (channel >= 0 && channel <= 7) dma.width = channel <= 3 ? 2 : 3;
  BusInsertTable(GetBusTables().dmas, entry);
}

void AddPort(const RangeLine& range) {
  BusTableEntry* const owner = GetFunctionEntry(range.name);
  BusTableEntry* const entry = owner != nullptr ? BusAllocatePortEntry(owner) : nullptr;
  if (entry == nullptr) return;
  BusPort& port = entry->port;
  port.first = static_cast<int64_t>(range.first);
  port.length = static_cast<int64_t>(range.last - range.first + 1);
  port.word7 = 2;
  BusInsertTable(GetBusTables().ports, entry);
}

// The IRQ entries of a network interface learn its name; without an owner it may be theirs.
void NameIrqsOfNic(int number, const std::string& name) {
  for (BusTableEntry* entry = GetBusTables().irqs.first; entry != nullptr; entry = entry->next) {
    const bool fits = entry->owner == nullptr || entry->owner->function.type == kComponentNetwork;
    if (entry->used == 0 || entry->irq.irq != number || !fits || !entry->irq.deviceName.IsEmpty()) continue;
    entry->irq.deviceName.Assign(name.c_str());
    TRACE(3, "Add device %s for NIC with IRQ %d\n", name.c_str(), number);
  }
}

void AddInterrupt(const InterruptLine& line) {
  if (line.device.empty()) {
    TRACE(3, "Device column for IRQ %d is empty, entry ignored\n", line.irq);
    return;
  }
  const std::string_view nic = FindEthernetName(line.device);
  const std::string device(nic.empty() ? line.device : nic);
  if (!nic.empty()) NameIrqsOfNic(line.irq, device);
  BusTableEntry* entry =
      FindUsed(GetBusTables().irqs, [&line](const BusTableEntry& each) { return each.irq.irq == line.irq; });
  if (entry == nullptr) {
    TRACE(3, "Assign IRQ %d for device '%s'\n", line.irq, device.c_str());
    entry = AddIrq(device, line.irq);
  }
  if (entry != nullptr && line.controller == "IO-APIC-level") entry->irq.trigger = kIrqLevel;
}

void AddDmaChannel(const DmaLine& line) {
  const BusTableEntry* const entry =
      FindUsed(GetBusTables().dmas, [&line](const BusTableEntry& each) { return each.dma.channel == line.channel; });
  if (entry != nullptr) return;
  TRACE(3, "Assign DMA %d to %s\n", line.channel, std::string(line.name).c_str());
  AddDma(line.name, line.channel);
}

bool Holds(const BusPort& port, int64_t number) {
  const uint64_t distance = static_cast<uint64_t>(number) - static_cast<uint64_t>(port.first);
  return number >= port.first && distance < static_cast<uint64_t>(port.length);
}

void AddPortRange(const RangeLine& range) {
  if (range.last > UINT32_MAX) return;
  const auto start = static_cast<int64_t>(range.first);
  const auto first = static_cast<unsigned>(range.first);
  const auto last = static_cast<unsigned>(range.last);
  const std::string name(range.name);
  BusTableEntry* const entry =
      FindUsed(GetBusTables().ports, [start](const BusTableEntry& each) { return Holds(each.port, start); });
  if (entry != nullptr) {
    entry->port.first = start;
    entry->port.length = std::min(static_cast<int64_t>(range.last - range.first + 1), kMaxRefreshedLength);
  } else if (name.starts_with("PCI")) {
    TRACE(3, "Skip I/O port range %04x-%04x for %s\n", first, last, name.c_str());
  } else if (name.starts_with("Intel")) {
    TRACE(3, "Skipped I/O port range '%04x-%04x : %s'\n", first, last, name.c_str());
  } else {
    TRACE(3, "Assign I/O port range %04x-%04x to %s\n", first, last, name.c_str());
    AddPort(range);
  }
}

// Hands every line that parses to the action. False when the file could not be opened.
template <typename Line>
bool ForEachLine(const char* path, bool (*parse)(std::string_view, Line&), void (*action)(const Line&)) {
  LineReader file = LineReader::OpenFile(path);
  for (std::string_view text; file.Next(text);) {
    Line line;
    if (parse(text, line)) action(line);
  }
  return static_cast<bool>(file);
}

}  // namespace

bool ScanIsaDevices() try {
  TRACE(2, "Collect ISA (=non-PCI) devices from %s ....\n", kInterrupts);
  const bool interrupts = ForEachLine(kInterrupts, ParseInterruptLine, AddInterrupt);
  const bool channels = ForEachLine(kDma, ParseDmaLine, AddDmaChannel);
  const bool ports = ForEachLine(kIoPorts, ParseRangeLine, AddPortRange);
  return interrupts || channels || ports;
} catch (const std::bad_alloc&) {
  return false;
}
