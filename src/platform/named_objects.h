#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "platform/critical_section.h"
#include "platform/owned_text.h"
#include "platform/str_map.h"

// What an object needs that several handles share, some of them by a name within the process.
struct SharedObject {
  uint32_t refCount = 1;         // guarded by the lock of the table
  std::unique_ptr<char[]> name;  // null = none; fixed before the object is shared
};

// The objects of one kind: counts the handles of each, and finds those that have a name.
//
// Threads: Lock is held over every operation and over what the caller does to its handle with the result. The lock of
// the names lies inside it.
// Construction is constant initialisation and allocates nothing.
template <class Object>  // derived from SharedObject
class NamedObjects {
 public:
  CCriticalSection& Lock() { return m_Lock; }

  // Another handle for the object of that name; null when there is none.
  Object* Join(const char* name) {
    const CCriticalSectionLock lock(m_Names);
    const CStrMap::Entry* entry = m_Names.Find(name);
    if (entry == nullptr) return nullptr;
    auto* object = static_cast<Object*>(entry->value);
    ++object->refCount;
    return object;
  }

  // Gives a new object its name. False when there is no memory.
  bool Register(Object& object, const char* name) {
    object.name = CopyText(name);
    const CCriticalSectionLock lock(m_Names);
    CStrMap::Entry* entry = object.name != nullptr ? m_Names.Insert(name) : nullptr;
    if (entry == nullptr) return false;
    entry->value = &object;
    entry->third = 0;
    return true;
  }

  // Gives a handle back. True for the last one: the name is free then, and the object is the caller's to destroy.
  bool Drop(Object& object) {
    if (--object.refCount > 0) return false;
    if (object.name != nullptr) m_Names.Remove(object.name.get());
    return true;
  }

 private:
  CCriticalSection m_Lock;
  CStrMap m_Names;
};
