#include "registry/registry_node.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

#include "trace/debug.h"

namespace {

static_assert(std::is_trivially_copyable_v<RegistryEntry>, "entries are moved as plain memory");

// The order of two words as the order of their bytes.
int CompareWords(const char* left, const char* right) {
  uint64_t leftWord = 0;
  uint64_t rightWord = 0;
  std::memcpy(&leftWord, left, sizeof leftWord);
  std::memcpy(&rightWord, right, sizeof rightWord);
  if (leftWord == rightWord) return 0;
  return __builtin_bswap64(leftWord) < __builtin_bswap64(rightWord) ? -1 : 1;
}

// As CStrMap::compare: no name is null or has a zero byte inside. Names are short, so eight bytes at a time are done
// before a library call has begun; the last eight overlap what was equal before.
int Compare(const RegistryEntry& entry, std::string_view name) {
  constexpr size_t kWord = sizeof(uint64_t);
  const size_t count = std::min<size_t>(entry.nameLength, name.size());
  int order = 0;
  if (count < kWord) {
    order = std::memcmp(entry.name, name.data(), count);
  } else {
    size_t at = 0;
    for (; order == 0 && at + kWord < count; at += kWord)
      order = CompareWords(entry.name + at, name.data() + at);
    if (order == 0) order = CompareWords(entry.name + count - kWord, name.data() + count - kWord);
  }
  if (order != 0) return order;
  return entry.nameLength < name.size() ? -1 : static_cast<int>(entry.nameLength > name.size());
}

struct Place {
  uint32_t position;  // of the name, or where it belongs
  bool isFound;
};

Place Search(const RegistryEntry* entries, uint32_t count, std::string_view name) {
  uint32_t first = 0;
  uint32_t last = count;
  while (first < last) {
    const uint32_t middle = first + (last - first) / 2;
    const int order = Compare(entries[middle], name);
    if (order == 0) return {middle, true};
    if (order < 0) {
      first = middle + 1;
    } else {
      last = middle;
    }
  }
  return {first, false};
}

void Move(RegistryEntry* to, const RegistryEntry* from, size_t count) {
  std::memmove(to, from, count * sizeof *to);
}

}  // namespace

CRegistryNode::~CRegistryNode() {
  deleteNode();
  FreeNames();
}

CRegistryNodeRef CRegistryNode::FindSubKey(std::string_view name) {
  const CCriticalSectionLock lock(*this);
  const RegistryEntry* entry = Find(name);
  return CRegistryNodeRef(entry != nullptr && entry->IsSubKey() ? entry->Node() : nullptr);
}

CRegistryNode::Creation CRegistryNode::FindOrCreateSubKey(std::string_view name, CRegistryNodeRef& child) {
  const CCriticalSectionLock lock(*this);
  const RegistryEntry* entry = Find(name);
  if (entry != nullptr && entry->HoldsValue()) {
    if (!entry->IsSubKey()) return Creation::kIsValue;
    child = CRegistryNodeRef(entry->Node());
    return Creation::kFound;
  }
  CRegistryValue value = CRegistryValue::SubKey(new CRegistryNode);
  CRegistryNodeRef created(reinterpret_cast<CRegistryNode*>(value.Word()));
  if (!Store(name, value)) return Creation::kRefused;
  child = std::move(created);
  return Creation::kCreated;
}

bool CRegistryNode::Exchange(std::string_view name, CRegistryValue& value) {
  const CCriticalSectionLock lock(*this);
  return Store(name, value);
}

bool CRegistryNode::Store(std::string_view name, CRegistryValue& value) {
  if (m_IsDeleted) return false;
  const bool isBehindLast = IsBehindLast(name);
  RegistryEntry* entry = isBehindLast ? nullptr : Find(name);
  if (entry == nullptr) entry = &InsertEntry(name, isBehindLast);
  value.SwapWith(*entry);
  ++m_Version;
  return true;
}

bool CRegistryNode::Remove(std::string_view name, CRegistryValue& removed) {
  std::unique_ptr<char[]> freedName;
  const CCriticalSectionLock lock(*this);
  RegistryEntry* entry = m_IsDeleted ? nullptr : Find(name);
  if (entry == nullptr) return false;
  removed.SwapWith(*entry);
  freedName.reset(entry->name);
  const auto position = static_cast<uint32_t>(entry - m_Entries);
  Move(entry, entry + 1, Count() - position - 1);
  if (position < m_SortedCount) --m_SortedCount;
  m_Entries[--m_Count] = {};
  ++m_Version;
  return true;
}

RegistryEntry* CRegistryNode::Find(std::string_view name) {
  Place place = Search(m_Entries, m_SortedCount, name);
  if (!place.isFound && m_SortedCount != Count()) {
    place = Search(m_Entries + m_SortedCount, Count() - m_SortedCount, name);
    place.position += m_SortedCount;
  }
  return place.isFound ? m_Entries + place.position : nullptr;
}

std::span<const RegistryEntry> CRegistryNode::Entries() {
  if (m_SortedCount != Count()) MergeTail();
  return {m_Entries, Count()};
}

size_t CRegistryNode::PositionBehind(std::string_view name) {
  const std::span<const RegistryEntry> entries = Entries();
  const Place place = Search(entries.data(), Count(), name);
  return place.position + (place.isFound ? 1U : 0U);
}

bool CRegistryNode::IsBehindLast(std::string_view name) const {
  if (m_SortedCount != Count()) return false;
  return m_Count == 0 || Compare(m_Entries[m_Count - 1], name) < 0;
}

// A new entry without a value; the caller knows that there is none of this name.
RegistryEntry& CRegistryNode::InsertEntry(std::string_view name, bool isBehindLast) {
  auto copy = std::make_unique_for_overwrite<char[]>(name.size() + 1);
  if (!name.empty()) std::memcpy(copy.get(), name.data(), name.size());
  copy[name.size()] = '\0';
  if (Count() == m_Capacity) Grow();

  uint32_t position = Count();
  if (isBehindLast) {
    ++m_SortedCount;
  } else if (m_SortedCount == Count() && Count() < kDirectLimit) {
    position = Search(m_Entries, Count(), name).position;
    ++m_SortedCount;
  } else {
    if (Count() - m_SortedCount == kTailLimit) MergeTail();
    position = m_SortedCount + Search(m_Entries + m_SortedCount, Count() - m_SortedCount, name).position;
  }
  OpenGap(position);
  m_Entries[position] = RegistryEntry::Of(copy.release(), name.size(), 0, kRegistryNone);
  return m_Entries[position];
}

void CRegistryNode::OpenGap(uint32_t position) {
  Move(m_Entries + position + 1, m_Entries + position, Count() - position);
  ++m_Count;
}

void CRegistryNode::Grow() {
  const uint32_t capacity = Count() + std::max(kGrowth, Count() / 2);
  // realloc moves a large array by remapping its pages.
  void* entries = std::realloc(static_cast<void*>(m_Entries), capacity * sizeof(RegistryEntry));
  if (entries == nullptr) throw std::bad_alloc();
  m_Entries = static_cast<RegistryEntry*>(entries);
  std::fill(m_Entries + m_Count, m_Entries + capacity, RegistryEntry{});
  m_Capacity = capacity;
}

// From the back, so that each entry of the main run moves once and few names are compared.
void CRegistryNode::MergeTail() {
  RegistryEntry tail[kTailLimit];
  uint32_t tailCount = Count() - m_SortedCount;
  Move(tail, m_Entries + m_SortedCount, tailCount);
  uint32_t mainEnd = m_SortedCount;
  uint32_t end = Count();
  while (tailCount > 0) {
    const RegistryEntry& entry = tail[--tailCount];
    const uint32_t position = Search(m_Entries, mainEnd, entry.Name()).position;
    end -= mainEnd - position;
    Move(m_Entries + end, m_Entries + position, mainEnd - position);
    mainEnd = position;
    m_Entries[--end] = entry;
  }
  m_SortedCount = Count();
}

void CRegistryNode::deleteNode() {
  DeleteSubtree(this);
  EndDeletion();
}

void CRegistryNode::Discard(CRegistryNode* node) {
  if (node == nullptr) return;
  DeleteSubtree(node);
  node->FreeNames();
  node->Unpin();
}

// Depth first, in entry order. Each node remembers where it was left and to which node the walk returns.
void CRegistryNode::DeleteSubtree(CRegistryNode* top) {
  top->BeginDeletion(nullptr);
  CRegistryNode* node = top;
  while (node != nullptr) {
    const char* name = nullptr;
    CRegistryValue value;
    if (node->TakeNextValue(name, value)) {
      TRACE(2, "CRegistryNode::deleteNode \"%s\"\n", name);
      CRegistryNode* child = value.ReleaseNode();
      if (child == nullptr) continue;
      child->BeginDeletion(node);
      node = child;
    } else {
      CRegistryNode* finished = node;
      node = node->m_DeletionParent;
      if (finished == top) continue;
      finished->FreeNames();
      finished->Unpin();
    }
  }
}

// From here on nothing is inserted or removed by others, so the names stay where they are.
void CRegistryNode::BeginDeletion(CRegistryNode* parent) {
  const CCriticalSectionLock lock(*this);
  m_IsDeleted = true;
  m_DeletionParent = parent;
  m_DeletionPosition = 0;
  ++m_Version;
}

bool CRegistryNode::TakeNextValue(const char*& name, CRegistryValue& value) {
  const CCriticalSectionLock lock(*this);
  if (m_DeletionPosition == 0) Entries();
  while (m_DeletionPosition < Count()) {
    RegistryEntry& entry = m_Entries[m_DeletionPosition++];
    if (!entry.HoldsValue()) continue;
    value.SwapWith(entry);
    name = entry.name;
    return true;
  }
  return false;
}

void CRegistryNode::EndDeletion() {
  const CCriticalSectionLock lock(*this);
  m_IsDeleted = false;
  ++m_Version;
}

void CRegistryNode::FreeNames() {
  const CCriticalSectionLock lock(*this);
  for (uint32_t position = 0; position < Count(); ++position)
    delete[] m_Entries[position].name;
  std::free(m_Entries);
  m_Entries = nullptr;
  m_Capacity = 0;
  m_Count = 0;
  m_SortedCount = 0;
}
