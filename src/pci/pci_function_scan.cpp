#include "pci/pci_function_scan.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <bitset>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "pci/bus_table.h"
#include "pci/fc_controllers.h"
#include "pci/legacy_class_table.h"
#include "pci/line_reader.h"
#include "pci/pci_config_header.h"
#include "pci/pci_names.h"
#include "pci/pci_slot_map.h"
#include "pci/resource_lines.h"
#include "platform/never_destroyed.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kDevices = "/proc/bus/pci/devices";
constexpr const char* kConfigFile = "/proc/bus/pci/%02x/%02x.%x";
constexpr const char* kVmwarePci = "/proc/vmware/pci";
constexpr size_t kMaxLine = 1023;
constexpr const char* kEthernet = "Ethernet controller";
constexpr uint32_t kMacLength = 6;
constexpr int64_t kPciMemoryLength = 16;  // until something begins before
constexpr int64_t kPciPortLength = 4;

std::string ConfigPath(const PciDevicesLine& line) {
  char path[64];
  std::snprintf(path, sizeof path, kConfigFile, line.bus, line.device, line.function);
  return path;
}

std::string IdText(unsigned id) {
  char text[16];
  std::snprintf(text, sizeof text, "%04X", id);
  return text;
}

// The functions that a pass has made: the list of devices shows no segment, so that another line may show the same
// address once more.
class SeenFunctions {
 public:
  // False for one that was there before.
  bool Add(const PciDevicesLine& line) {
    const size_t place = size_t{line.bus} << 8 | size_t{line.device} << 3 | line.function;
    if (m_Seen[place]) return false;
    m_Seen[place] = true;
    return true;
  }

 private:
  std::bitset<0x10000> m_Seen;
};

// Whether the header can be that of the line's function. A virtual function carries no IDs of its own.
bool IsHeaderOf(const PciDevicesLine& line, const CPciCommonConfigHeader& header) {
  if (header.VendorId() == 0xFFFF) return true;
  return header.VendorId() == line.vendorId && header.DeviceId() == line.deviceId;
}

// Short files leave the rest of the header zero; false for none and an empty one.
bool ReadHeader(const std::string& path, CPciCommonConfigHeader& header) {
  const UniqueFd fd{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  const int error = errno;
  if (!fd) {
    TRACE(3, "Error %d opening %s\n", error, path.c_str());
    return false;
  }
  return ::read(fd.Get(), header.bytes, sizeof header.bytes) > 0;
}

void SetNames(BusFunction& function, const CPciCommonConfigHeader& header) {
  const int subsystem = header.SubsystemId();
  std::string device;
  std::string vendor;
  const bool found = (subsystem != 0 && mapPciID(header.VendorId(), header.DeviceId(), subsystem, device, vendor)) ||
                     mapPciID(header.VendorId(), header.DeviceId(), -1, device, vendor);
  if (!found) {
    device = IdText(header.DeviceId());
    if (vendor.empty()) vendor = IdText(header.VendorId());
  }
  function.deviceName.Assign(device.c_str());
  function.vendorName.Assign(vendor.c_str());
}

void SetHardwareAddress(BusFunction& function, const PciDevicesLine& line) {
  FcWwn wwn;
  if (AdapterIsFCController(line.bus, line.device, line.function, wwn)) {
    function.hardwareAddress.Assign(wwn.data(), static_cast<uint32_t>(wwn.size()));
  } else if (std::string_view(function.className.Text()) == kEthernet) {
    function.hardwareAddress.Assign(nullptr, kMacLength);
  }
}

void TraceFunction(const BusFunction& function, const PciDevicesLine& line, const CPciCommonConfigHeader& header) {
  const auto orUnknown = [](const CCountedString& name) { return name.IsEmpty() ? "<unknown>" : name.Text(); };
  TRACE(3, "PCI device %02x:%02x.%x: %04x:%04x %04x:%04x %s (%s)\n", line.bus, line.device, line.function,
        header.VendorId(), header.DeviceId(), header.SubsystemVendorId(), header.SubsystemId(),
        orUnknown(function.deviceName), orUnknown(function.vendorName));
}

BusTableEntry* AddFunctionEntry(const PciDevicesLine& line, const std::string& path,
                                const CPciCommonConfigHeader& header) {
  const BusKey key = {kBusTypePci, line.bus + 1, line.device, line.function + 1, 0};
  BusTableEntry* const entry = BusAllocateFunctionEntry(&key);
  if (entry == nullptr) return nullptr;
  BusFunction& function = entry->function;
  const LegacyClass found = FindLegacyPciClass(header.BaseClass(), header.SubClass(), header.ProgrammingInterface(),
                                               header.VendorId(), header.DeviceId());
  function.className.Assign(found.name);
  function.type = found.type;
  SetHardwareAddress(function, line);
  SetNames(function, header);
  TraceFunction(function, line, header);
  function.path.Assign(path.c_str());
  function.slot = GetPciSlotNumber(line.bus, line.device);
  BusInsertTable(GetBusTables().functions, entry);
  return entry;
}

struct ChildBus {
  int64_t bus;
  int64_t type;
};

ChildBus FindChildBus(const CPciCommonConfigHeader& header) {
  switch (header.SubClass()) {
    case 1:  // ISA
      return {1, 2};
    case 2:  // EISA
      return {1, 3};
    case 4:  // PCI-to-PCI
      return {header.SecondaryBus() + 1, 5};
    default:
      return {1, 1};
  }
}

void AddPciEntry(const BusFunction& function, const CPciCommonConfigHeader& header) {
  const BusKey key = {function.bus, function.device, function.number, 0, 0};
  BusTableEntry* const entry = BusAllocatePciEntry(&key);
  if (entry == nullptr) return;
  BusPci& pci = entry->pci;
  pci.vendorId = header.VendorId();
  pci.deviceId = header.DeviceId();
  pci.revision = header.Revision();
  pci.baseClass = header.BaseClass();
  pci.subClass = header.SubClass();
  pci.interface = header.ProgrammingInterface();
  pci.selfTest = (header.SelfTest() & 0x80) != 0 ? 1 : 2;
  pci.interruptPin = header.InterruptPin();
  if (pci.interruptPin != 0) pci.interruptLine = header.InterruptLine();
  if (header.BaseClass() == 6) {
    const ChildBus child = FindChildBus(header);
    pci.childBus = child.bus;
    pci.childBusType = child.type;
  }
  pci.subsystemVendorId = header.SubsystemVendorId();
  pci.subsystemId = header.SubsystemId();
  std::string device;
  std::string vendor;
  mapPciID(header.SubsystemVendorId(), header.DeviceId(), header.SubsystemId(), device, vendor);
  pci.vendorName.Assign(function.vendorName.Text());
  pci.subsystemVendorName.Assign(vendor.c_str());
  BusInsertTable(GetBusTables().pcis, entry);
}

// All functions of a device share one component; the last one names it.
void AddComponentEntry(const BusFunction& function, const CPciCommonConfigHeader& header) {
  const BusKey key = {function.busType, function.bus, function.device, 0, 0};
  BusTableEntry* const entry = BusAllocateComponentEntry(&key);
  if (entry == nullptr) return;
  BusComponent& component = entry->component;
  component.slot = function.slot;
  component.name.Assign(function.vendorName.Text());
  component.name.Concatenate(" - ");
  component.name.Concatenate(function.deviceName.Text());
  component.className.Assign(function.className.Text());
  component.ids.Assign((IdText(header.VendorId()) + " / " + IdText(header.DeviceId())).c_str());
  BusInsertTable(GetBusTables().components, entry);
}

void TraceBridge(const BusFunction& function, const CPciCommonConfigHeader& header) {
  TRACE(3, "Bridge device:  Primary   bus index: %d\n", header.PrimaryBus());
  TRACE(3, "                Secondary bus index: %d\n", header.SecondaryBus());
  TRACE(3, "                Slot number        : %d\n", static_cast<int>(function.slot));
}

// Null when there is no header to be read, or it is that of another segment's function than the line.
BusTableEntry* AddFunction(const PciDevicesLine& line, SeenFunctions& seen) {
  const std::string path = ConfigPath(line);
  CPciCommonConfigHeader header;
  if (!ReadHeader(path, header) || !IsHeaderOf(line, header) || !seen.Add(line)) return nullptr;
  BusTableEntry* const entry = AddFunctionEntry(line, path, header);
  if (entry == nullptr) return nullptr;
  AddPciEntry(entry->function, header);
  AddComponentEntry(entry->function, header);
  if (header.IsBridge()) TraceBridge(entry->function, header);
  GetBusTables().highestPciDevice = std::max<int64_t>(GetBusTables().highestPciDevice, line.device);
  return entry;
}

// VMware hosts give these RAID controllers a vector in place of their IRQ.
bool HasVmwareVector(const PciDevicesLine& line) {
  return line.vendorId == 0x1000 && (line.deviceId == 0x1960 || line.deviceId == 0x0408);
}

uint32_t ReplaceVmwareIrq(const PciDevicesLine& line) {
  LineReader file = LineReader::OpenFile(kVmwarePci);
  if (!file) return line.irq;
  for (std::string_view text; file.Next(text);) {
    VmwarePciLine found;
    if (!ParseVmwarePciLine(text, found) || found.vendorId != line.vendorId || found.deviceId != line.deviceId ||
        found.irq != line.irq) {
      continue;
    }
    TRACE(3, "    On VMware: Replaced real IRQ %d by IRQ vector 0x%02x for PCI Id %04x:%04x\n",
          static_cast<int>(line.irq), found.vector, line.vendorId, line.deviceId);
    return found.vector;
  }
  TRACE(3, "    On VMware: Could not replace real IRQ %d by IRQ vector for PCI Id %04x:%04x\n",
        static_cast<int>(line.irq), line.vendorId, line.deviceId);
  return line.irq;
}

void AddIrq(BusTableEntry* owner, uint32_t number) {
  BusTableEntry* const entry = BusAllocateIrqEntry(owner);
  if (entry == nullptr) return;
  entry->irq.word5 = 1;
  entry->irq.trigger = kIrqLevel;
  entry->irq.irq = number;
  BusInsertTable(GetBusTables().irqs, entry);
}

void AddPort(BusTableEntry* owner, uint64_t address) {
  BusTableEntry* const entry = BusAllocatePortEntry(owner);
  if (entry == nullptr) return;
  entry->port.first = static_cast<int64_t>(address & ~uint64_t{0x03});
  entry->port.length = kPciPortLength;
  entry->port.word7 = 2;
  BusInsertTable(GetBusTables().ports, entry);
}

void AddMemory(BusTableEntry* owner, uint64_t address) {
  BusTableEntry* const entry = BusAllocateMemoryEntry(owner);
  if (entry == nullptr) return;
  entry->memory.kind = kMemoryOfPci;
  entry->memory.addressLow = static_cast<int64_t>(address & 0xFFFFFFF0);
  entry->memory.addressHigh = static_cast<int64_t>(address >> 32);
  entry->memory.length = kPciMemoryLength;
  BusInsertTable(GetBusTables().memories, entry);
}

// owner: null when the line's function has no entry.
void AddResources(const PciDevicesLine& line, BusTableEntry* owner) {
  const auto address = [&line](size_t index) { return static_cast<unsigned long long>(line.addresses[index]); };
  TRACE(3, "    PCI Id %04x:%04x IRQ %02x Base Addr[0-5]: %016llx %016llx %016llx %016llx %016llx %016llx\n",
        line.vendorId, line.deviceId, line.irq, address(0), address(1), address(2), address(3), address(4), address(5));
  if (line.irq != 0) AddIrq(owner, HasVmwareVector(line) ? ReplaceVmwareIrq(line) : line.irq);
  for (const uint64_t base : line.addresses) {
    if (base == 0) continue;
    (base & 0x01) != 0 ? AddPort(owner, base) : AddMemory(owner, base);
  }
}

struct MemoryRange {
  uint64_t start;
  BusTableEntry* entry;
};

bool IsSameDevice(const BusKey& left, const BusKey& right) {
  return left.word0 == right.word0 && left.word1 == right.word1 && left.word2 == right.word2;
}

// A range ends where one of another device begins inside it.
void CutMemoryRanges() {
  std::vector<MemoryRange> ranges;
  for (BusTableEntry* entry = GetBusTables().memories.first; entry != nullptr; entry = entry->next) {
    const BusMemory& memory = entry->memory;
    if (entry->used == 0 || memory.kind != kMemoryOfPci) continue;
    const uint64_t high = static_cast<uint64_t>(memory.addressHigh) << 32;
    ranges.push_back({high | static_cast<uint64_t>(memory.addressLow), entry});
  }
  std::ranges::sort(ranges, {}, &MemoryRange::start);
  for (auto range = ranges.begin(); range != ranges.end(); ++range) {
    int64_t& length = range->entry->memory.length;
    for (auto next = range + 1; next != ranges.end(); ++next) {
      const uint64_t distance = next->start - range->start;
      if (distance >= static_cast<uint64_t>(length)) break;
      if (distance != 0 && !IsSameDevice(range->entry->key, next->entry->key)) {
        length = static_cast<int64_t>(distance);
      }
    }
  }
}

}  // namespace

bool ScanPciFunctions() try {
  TRACE(2, "Scanning PCI devices ...\n");
  RefreshFcControllers(std::chrono::steady_clock::now());
  LineReader devices = LineReader::OpenFile(kDevices);
  if (!devices) return false;
  SeenFunctions seen;
  for (std::string_view text; devices.Next(text, kMaxLine);) {
    PciDevicesLine line;
    if (ParsePciDevicesLine(text, line)) AddResources(line, AddFunction(line, seen));
  }
  CutMemoryRanges();
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

int8_t GetPciSlotNumber(unsigned bus, unsigned device) {
  static NeverDestroyed<CPciSlotMap> slotMap;
  unsigned char slot = 0;
  if (slotMap.object.GetPciSlotNumber(slot, bus, device, 0, 0)) {
    TRACE(3, "slot %d for %02x:%02x found in slot mapping table\n", slot, bus, device);
    return static_cast<int8_t>(slot);
  }
  TRACE(3, "slot number for %02x:%02x not found, assuming SlotNo=0\n", bus, device);
  return 0;
}
