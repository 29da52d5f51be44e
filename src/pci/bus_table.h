#pragma once

#include <cstddef>
#include <cstdint>

// The seven process-wide tables of the machine's buses and their resources, and the operations on them.
//
// Threads: nothing here is protected; the build pass and every walk run on one thread at a time.
// Ownership: entries belong to the tables and are never freed, so pointers to them stay good for the life of the
// process. A later build pass refreshes the entries with equal keys, takes those of resources without an owner for
// other such resources, and leaves the rest behind with used = 0.
// Failures: null, when memory runs out. Nothing throws.

// A text inside an entry. All zero is the empty text. Copying copies the pointer alone.
struct CCountedString {
  uint32_t length;
  char* text;  // heap copy with its terminator, null when empty

  const char* Text() const { return text != nullptr ? text : ""; }
  bool IsEmpty() const { return length == 0; }
  // Frees the text.
  void Empty();
  // Replaces the text by a copy; null counts as "". False, and empty, when memory runs out.
  bool Assign(const char* source);
  // False, and unchanged, when memory runs out.
  bool Concatenate(const char* source);
  // Forgets the text without freeing it: its bytes have another holder now.
  void Invalidate();
};

// A MAC address (6 bytes) or a WWN (8 bytes) inside a function entry.
struct BusHardwareAddress {
  uint32_t length;
  unsigned char* bytes;

  void Empty();
  // A buffer of that many bytes: copied from source, zero when source is null. False, and empty, without memory.
  bool Assign(const unsigned char* source, uint32_t size);
};

constexpr int64_t kBusTypeIsa = 2;
constexpr int64_t kBusTypePci = 5;

// What a function is, as the inventory knows it. The numbers reach clients and must not change.
enum BusComponentType : int64_t {
  kComponentUnset = 0,
  kComponentStorage = 1,
  kComponentSerial = 5,
  kComponentNetwork = 6,
  kComponentDisplay = 7,
  kComponentParallel = 8,
  kComponentPointer = 9,
  kComponentKeyboard = 10,
  kComponentAudio = 11,
  kComponentOther = 12,
  kComponentBridge = 13,
  kComponentProcessor = 14,
};

// IRQ sharing state of an IRQ entry.
enum BusIrqSharing : int64_t { kIrqShared = 1, kIrqNotShared = 2, kIrqSharingUnset = 3 };

// The key: the first 3, 4 or 5 words of an entry, by kind. Words behind the key of a kind are not looked at.
struct BusKey {
  int64_t word0;
  int64_t word1;
  int64_t word2;
  int64_t word3;
  int64_t word4;
};

// The seven kinds. Word numbers count from the start of the entry; numbers in comments are what the members begin at.
// Codes without a name are handed on to the inventory as they are.

struct BusFunction {
  int64_t busType;  // kBusTypePci or kBusTypeIsa
  int64_t bus;      // bus number + 1; ISA: 1
  int64_t device;   // ISA: 0
  int64_t number;   // function + 1; ISA: running ISA device number
  int64_t type;     // BusComponentType
  CCountedString className;
  CCountedString deviceName;
  CCountedString vendorName;
  int64_t slot;                        // 11; ISA: -1
  BusHardwareAddress hardwareAddress;  // 12
  CCountedString path;                 // 14, the configuration file
  CCountedString pnpId;                // 16; the kernel's resource files name none, so it is empty
};

struct BusPci {
  int64_t bus;
  int64_t device;
  int64_t function;
  int64_t vendorId;
  int64_t deviceId;
  int64_t revision;
  int64_t baseClass;
  int64_t subClass;
  int64_t interface;
  int64_t selfTest;       // 9: 1 when the function can test itself, else 2
  int64_t interruptPin;   // 10
  int64_t interruptLine;  // 11, set when there is a pin
  CCountedString vendorName;
  int64_t childBus;      // 14: bus number + 1
  int64_t childBusType;  // 15
  int64_t subsystemVendorId;
  int64_t subsystemId;  // 17
  CCountedString subsystemVendorName;
};

struct BusMemory {
  int64_t owner[4];
  int64_t number;
  int64_t kind;         // 5
  int64_t addressLow;   // 6
  int64_t addressHigh;  // 7
  int64_t length;       // 8
};

struct BusIrq {
  int64_t owner[4];
  int64_t number;
  int64_t word5;
  int64_t trigger;  // 6: 3 for level-triggered IRQs
  int64_t sharing;  // 7: BusIrqSharing
  int64_t irq;      // 8
  CCountedString deviceName;
};

struct BusDma {
  int64_t owner[4];
  int64_t number;
  int64_t channel;  // 5
  int64_t word6;
  int64_t width;  // 7
};

struct BusPort {
  int64_t owner[4];
  int64_t number;
  int64_t first;   // 5
  int64_t length;  // 6
  int64_t word7;
};

struct BusComponent {
  int64_t busType;
  int64_t bus;
  int64_t device;
  int64_t slot;  // 3
  CCountedString name;
  CCountedString className;
  CCountedString ids;
};

constexpr int64_t kMemoryOfPci = 2;  // BusMemory::kind
constexpr int64_t kIrqLevel = 3;     // BusIrq::trigger

struct BusTableEntry;

// 1: the entry is greater than the key, 0: equal, -1: smaller.
using BusCompare = int (*)(const BusTableEntry& entry, const BusKey& key);

// Which of an owner's running counters numbers a resource.
enum BusResource : size_t { kResourceMemory, kResourceIrq, kResourceDma, kResourcePort, kResourceKinds };

// One record for all seven kinds.
struct BusTableEntry {
  union {
    BusKey key;
    BusFunction function;
    BusPci pci;
    BusMemory memory;
    BusIrq irq;
    BusDma dma;
    BusPort port;
    BusComponent component;
  };
  uint32_t used;  // 1: created or refreshed by the last build pass
  BusCompare compare;
  BusTableEntry* next;
  BusTableEntry* owner;              // the function entry that owns a resource, else null
  int64_t counters[kResourceKinds];  // function entries: how many resources of each kind they own
  uint64_t reserved;                 // keeps the size of the record
};

// One table: a singly linked list in ascending key order.
struct BusTable {
  BusTableEntry* first;
  BusTableEntry* walkFrom;  // smaller than the last insertion: keys come mostly in order, so walks begin there
  BusTableEntry* freeFrom;  // no entry without an owner before this one is free to be taken again
};

struct BusTables {
  BusTable functions;
  BusTable pcis;
  BusTable memories;
  BusTable irqs;
  BusTable dmas;
  BusTable ports;
  BusTable components;
  int64_t highestPciDevice;  // the highest device number that the PCI scan has seen
  int64_t isaDevices;        // the number of the last ISA device
};

// The tables of the process.
BusTables& GetBusTables();

// The start of a build pass: marks every entry as unused, but with keepIsa those of ISA devices.
void BusClearUsed(BusTable& table, bool keepIsa);

// Walks the table up to the first entry greater than the key, with usedOnly past the entries that are not in use.
// Mode 0 returns the first entry equal to the key, mode 1 the first one greater, mode -1 the last one not greater;
// null when there is none.
BusTableEntry* BusSearchTable(const BusTable& table, int mode, const BusKey& key, bool usedOnly);

// Puts the entry behind the last one that is not greater. Does nothing for an entry that the table holds already.
void BusInsertTable(BusTable& table, BusTableEntry* entry);

// An entry of the kind with its default values and used = 1, to be filled and then inserted. With a key or an owner an
// entry of the table with that key is reused, its texts emptied and, for a function, its counters set back; without,
// the entry has the default key and is new, unless an earlier pass has left a resource without an owner that is unused.
// A resource takes the next number of its owner.
BusTableEntry* BusAllocateFunctionEntry(const BusKey* key);
BusTableEntry* BusAllocatePciEntry(const BusKey* key);
BusTableEntry* BusAllocateMemoryEntry(BusTableEntry* owner);
BusTableEntry* BusAllocateIrqEntry(BusTableEntry* owner);
BusTableEntry* BusAllocateDmaEntry(BusTableEntry* owner);
BusTableEntry* BusAllocatePortEntry(BusTableEntry* owner);
BusTableEntry* BusAllocateComponentEntry(const BusKey* key);

// Layout that clients of the entries rely on.
constexpr size_t kBusWord = sizeof(int64_t);
static_assert(sizeof(BusTableEntry) == 232);
static_assert(offsetof(BusFunction, type) == 4 * kBusWord && offsetof(BusFunction, slot) == 11 * kBusWord);
static_assert(offsetof(BusPci, selfTest) == 9 * kBusWord && offsetof(BusPci, childBus) == 14 * kBusWord &&
              offsetof(BusPci, subsystemId) == 17 * kBusWord);
static_assert(offsetof(BusMemory, length) == 8 * kBusWord && offsetof(BusIrq, irq) == 8 * kBusWord);
static_assert(offsetof(BusDma, width) == 7 * kBusWord && offsetof(BusPort, word7) == 7 * kBusWord);
static_assert(offsetof(BusComponent, slot) == 3 * kBusWord);
