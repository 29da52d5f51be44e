#pragma once

#include <cstdint>
#include <span>

#include "platform/critical_section.h"

// Sorted array of entries, each an owned name with a value and a third word that belong to the user of the map.
//
// Threads: every operation takes the map's own lock. An entry stays where it is only until the next Insert or Remove,
// so whoever looks an entry up and uses it holds the lock over both: CCriticalSectionLock lock(map).
// Ownership: the map owns the names and the array, never what the values point to.
// Failure: null results, when memory runs out or a null name is given; the map is then unchanged.
// Construction is constant initialisation and allocates nothing.
class CStrMap : public CCriticalSection {
 public:
  struct Entry {
    char* key;            // owned by the map, made with new[]
    void* value;          // null in a new entry
    unsigned long third;  // 0 in a new entry
  };

  constexpr CStrMap() = default;
  ~CStrMap();

  // Order of the names: bytes as strcmp has them, null behind all others, two nulls equal.
  // "A" < "B" < "a" < "a1" < null
  static int compare(const char* left, const char* right);

  // Binary search. Null when there is no such name.
  Entry* Find(const char* key);

  // The entry of that name; a new one, at its place in the order, when there is none.
  Entry* Insert(const char* key);

  // Frees the name and closes the gap; the array keeps its size. False when there is no such name.
  bool Remove(const char* key);

  // All entries in order. The caller holds the lock.
  std::span<Entry> Entries() const;

 private:
  static constexpr uint32_t kGrowth = 16;

  Entry* LowerBound(const char* key) const;  // the lock is held
  bool IsAt(const Entry* entry, const char* key) const;
  bool Grow();  // the lock is held

  // Guarded by the lock
  Entry* m_Entries = nullptr;
  uint32_t m_Capacity = 0;
  int32_t m_Count = 0;
};
