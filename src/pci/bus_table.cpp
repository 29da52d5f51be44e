#include "pci/bus_table.h"

#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constinit BusTables s_Tables = {};

template <size_t words>
int CompareWords(const BusTableEntry& entry, const BusKey& key) {
  constexpr int64_t BusKey::*kWords[] = {&BusKey::word0, &BusKey::word1, &BusKey::word2, &BusKey::word3,
                                         &BusKey::word4};
  for (size_t index = 0; index < words; ++index) {
    const int64_t left = entry.key.*kWords[index];
    const int64_t right = key.*kWords[index];
    if (left != right) return left > right ? 1 : -1;
  }
  return 0;
}

// Nothing in front of an entry is greater than it, so an entry that is smaller than the key may stand for all of that;
// a walk over used entries needs it to be one of them.
BusTableEntry* StartOfWalk(const BusTable& table, const BusKey& key, bool usedOnly) {
  BusTableEntry* const hint = table.walkFrom;
  const bool fits = hint != nullptr && (hint->used != 0 || !usedOnly) && hint->compare(*hint, key) < 0;
  return fits ? hint : table.first;
}

// The words behind the key of the kind belong to its values and stay zero.
BusTableEntry* NewEntry(const BusKey& key, size_t words) {
  auto* const entry = static_cast<BusTableEntry*>(std::calloc(1, sizeof(BusTableEntry)));
  if (entry == nullptr) return nullptr;
  entry->key = {key.word0, key.word1, key.word2, words > 3 ? key.word3 : 0, words > 4 ? key.word4 : 0};
  return entry;
}

template <size_t words>
BusTableEntry* Allocate(const BusTable& table, const BusKey* key, const BusKey& defaultKey) {
  BusTableEntry* entry = key != nullptr ? BusSearchTable(table, 0, *key, false) : nullptr;
  if (entry == nullptr) entry = NewEntry(key != nullptr ? *key : defaultKey, words);
  if (entry == nullptr) return nullptr;
  entry->compare = CompareWords<words>;
  entry->owner = nullptr;
  entry->used = 1;
  return entry;
}

constexpr BusKey kWithoutOwner = {0, 1, 0, 1, 1};

// The next unused entry without an owner. They are the first of the table, all with the same key.
BusTableEntry* TakeWithoutOwner(BusTable& table) {
  BusTableEntry* entry = table.freeFrom;
  while (entry != nullptr && entry->used != 0 && entry->compare(*entry, kWithoutOwner) <= 0)
    entry = entry->next;
  const bool isFree = entry != nullptr && entry->compare(*entry, kWithoutOwner) == 0;
  table.freeFrom = isFree ? entry->next : nullptr;
  if (isFree) entry->used = 1;
  return isFree ? entry : nullptr;
}

BusTableEntry* AllocateResource(BusTable& table, BusResource resource, BusTableEntry* owner) {
  if (owner == nullptr) {
    BusTableEntry* const left = TakeWithoutOwner(table);
    return left != nullptr ? left : Allocate<5>(table, nullptr, kWithoutOwner);
  }
  const BusKey& of = owner->key;
  const BusKey key = {of.word0, of.word1, of.word2, of.word3, ++owner->counters[resource]};
  BusTableEntry* const entry = Allocate<5>(table, &key, kWithoutOwner);
  if (entry != nullptr) entry->owner = owner;
  return entry;
}

}  // namespace

void CCountedString::Empty() {
  std::free(text);
  Invalidate();
}

bool CCountedString::Assign(const char* source) {
  Empty();
  return Concatenate(source);
}

bool CCountedString::Concatenate(const char* source) {
  const size_t added = source != nullptr ? std::strlen(source) : 0;
  if (added == 0) return true;
  if (added >= UINT32_MAX - length) return false;
  auto* const longer = static_cast<char*>(std::realloc(text, length + added + 1));
  if (longer == nullptr) return false;
  std::memcpy(longer + length, source, added + 1);
  text = longer;
  length += static_cast<uint32_t>(added);
  return true;
}

void CCountedString::Invalidate() {
  text = nullptr;
  length = 0;
}

void BusHardwareAddress::Empty() {
  std::free(bytes);
  bytes = nullptr;
  length = 0;
}

bool BusHardwareAddress::Assign(const unsigned char* source, uint32_t size) {
  Empty();
  bytes = static_cast<unsigned char*>(std::calloc(1, size));
  if (bytes == nullptr) return false;
  if (source != nullptr) std::memcpy(bytes, source, size);
  length = size;
  return true;
}

BusTables& GetBusTables() {
  return s_Tables;
}

void BusClearUsed(BusTable& table, bool keepIsa) {
  for (BusTableEntry* entry = table.first; entry != nullptr; entry = entry->next) {
    if (!keepIsa || entry->key.word0 != kBusTypeIsa) entry->used = 0;
  }
  table.freeFrom = table.first;
}

BusTableEntry* BusSearchTable(const BusTable& table, int mode, const BusKey& key, bool usedOnly) {
  BusTableEntry* notGreater = nullptr;
  for (BusTableEntry* entry = StartOfWalk(table, key, usedOnly); entry != nullptr; entry = entry->next) {
    if (usedOnly && entry->used == 0) continue;
    const int order = entry->compare(*entry, key);
    if (order > 0) return mode == 0 ? nullptr : mode > 0 ? entry : notGreater;
    if (order == 0 && mode == 0) return entry;
    notGreater = entry;
  }
  return mode < 0 ? notGreater : nullptr;
}

void BusInsertTable(BusTable& table, BusTableEntry* entry) {
  if (entry == nullptr) return;
  BusTableEntry* before = nullptr;
  BusTableEntry* after = StartOfWalk(table, entry->key, false);
  while (after != nullptr && after != entry && after->compare(*after, entry->key) <= 0) {
    before = std::exchange(after, after->next);
  }
  if (before != nullptr && before->compare(*before, entry->key) < 0) table.walkFrom = before;
  if (after == entry) return;
  entry->next = after;
  (before != nullptr ? before->next : table.first) = entry;
}

BusTableEntry* BusAllocateFunctionEntry(const BusKey* key) {
  BusTableEntry* const entry = Allocate<4>(s_Tables.functions, key, {0, 0, 0, 0, 0});
  if (entry == nullptr) return nullptr;
  BusFunction& function = entry->function;
  function.type = kComponentUnset;
  for (CCountedString* text :
       {&function.className, &function.deviceName, &function.vendorName, &function.path, &function.pnpId}) {
    text->Empty();
  }
  function.hardwareAddress.Empty();
  for (int64_t& counter : entry->counters)
    counter = 0;
  return entry;
}

BusTableEntry* BusAllocatePciEntry(const BusKey* key) {
  BusTableEntry* const entry = Allocate<3>(s_Tables.pcis, key, {1, 0, 1, 0, 0});
  if (entry == nullptr) return nullptr;
  BusPci& pci = entry->pci;
  pci.revision = 0;
  pci.baseClass = 255;
  pci.selfTest = 3;
  pci.interruptLine = 0;
  pci.childBus = -1;
  pci.childBusType = 0;
  pci.vendorName.Empty();
  pci.subsystemVendorName.Empty();
  return entry;
}

BusTableEntry* BusAllocateMemoryEntry(BusTableEntry* owner) {
  BusTableEntry* const entry = AllocateResource(s_Tables.memories, kResourceMemory, owner);
  if (entry != nullptr) entry->memory.kind = 1;
  return entry;
}

BusTableEntry* BusAllocateIrqEntry(BusTableEntry* owner) {
  BusTableEntry* const entry = AllocateResource(s_Tables.irqs, kResourceIrq, owner);
  if (entry == nullptr) return nullptr;
  BusIrq& irq = entry->irq;
  irq.word5 = 3;
  irq.trigger = 1;
  irq.sharing = kIrqSharingUnset;
  irq.irq = -1;
  irq.deviceName.Empty();
  return entry;
}

BusTableEntry* BusAllocateDmaEntry(BusTableEntry* owner) {
  BusTableEntry* const entry = AllocateResource(s_Tables.dmas, kResourceDma, owner);
  if (entry == nullptr) return nullptr;
  entry->dma.channel = -1;
  entry->dma.word6 = 1;
  entry->dma.width = 1;
  return entry;
}

BusTableEntry* BusAllocatePortEntry(BusTableEntry* owner) {
  BusTableEntry* const entry = AllocateResource(s_Tables.ports, kResourcePort, owner);
  if (entry == nullptr) return nullptr;
  entry->port.first = -1;
  entry->port.length = 0;
  entry->port.word7 = 3;
  return entry;
}

BusTableEntry* BusAllocateComponentEntry(const BusKey* key) {
  BusTableEntry* const entry = Allocate<3>(s_Tables.components, key, {1, 1, 0, 0, 0});
  if (entry == nullptr) return nullptr;
  BusComponent& component = entry->component;
  component.slot = -1;
  component.name.Empty();
  component.className.Empty();
  component.ids.Empty();
  return entry;
}
