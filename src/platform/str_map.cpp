#include "platform/str_map.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "platform/owned_text.h"

CStrMap::~CStrMap() {
  for (const Entry& entry : Entries())
    delete[] entry.key;
  delete[] m_Entries;
}

int CStrMap::compare(const char* left, const char* right) {
  if (left != nullptr && right != nullptr) return std::strcmp(left, right);
  return (left == nullptr ? 1 : 0) - (right == nullptr ? 1 : 0);
}

CStrMap::Entry* CStrMap::Find(const char* key) {
  const CCriticalSectionLock lock(*this);
  Entry* entry = LowerBound(key);
  return IsAt(entry, key) ? entry : nullptr;
}

CStrMap::Entry* CStrMap::Insert(const char* key) {
  if (key == nullptr) return nullptr;
  const CCriticalSectionLock lock(*this);
  Entry* entry = LowerBound(key);
  if (IsAt(entry, key)) return entry;
  std::unique_ptr<char[]> name = CopyText(key);
  if (name == nullptr || !Grow()) return nullptr;
  // The array is sorted, so making room at the right place leaves what sorting it again would.
  entry = LowerBound(key);
  std::copy_backward(entry, m_Entries + m_Count, m_Entries + m_Count + 1);
  *entry = {name.release(), nullptr, 0};
  ++m_Count;
  return entry;
}

bool CStrMap::Remove(const char* key) {
  const CCriticalSectionLock lock(*this);
  Entry* entry = LowerBound(key);
  if (!IsAt(entry, key)) return false;
  delete[] entry->key;
  std::copy(entry + 1, m_Entries + m_Count, entry);
  --m_Count;
  m_Entries[m_Count] = {};
  return true;
}

std::span<CStrMap::Entry> CStrMap::Entries() const {
  return {m_Entries, static_cast<size_t>(m_Count)};
}

CStrMap::Entry* CStrMap::LowerBound(const char* key) const {
  return std::lower_bound(m_Entries, m_Entries + m_Count, key,
                          [](const Entry& entry, const char* name) { return compare(entry.key, name) < 0; });
}

bool CStrMap::IsAt(const Entry* entry, const char* key) const {
  return entry != m_Entries + m_Count && compare(entry->key, key) == 0;
}

bool CStrMap::Grow() {
  const auto used = static_cast<uint32_t>(m_Count);
  if (used < m_Capacity) return true;
  auto* grown = new (std::nothrow) Entry[used + kGrowth]{};
  if (grown == nullptr) return false;
  std::copy_n(m_Entries, used, grown);
  delete[] m_Entries;
  m_Entries = grown;
  m_Capacity = used + kGrowth;
  return true;
}
