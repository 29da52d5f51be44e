#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include "platform/critical_section.h"
#include "trace/debug.h"

// Bounded history of samples: one series per instance, oldest element first. An instance that is full drops its oldest
// element in place, so its memory is never more than the maximum number of elements.
//
// Threads: every operation takes the object's own recursive lock once, so one thread may append while others read. A
// reader of several instances sees each of them whole, but not all of them at one moment.
// Failures: an instance that does not exist takes nothing and gives nothing; the result says so.
template <typename T>
class CDataHistoryBuffer {
 public:
  // Replaces what is there by empty instances. Counts below 0 are taken as 0; with no element allowed, nothing is kept.
  void Create(int maxElements, int instances) {
    TRACE(4, "\nCDataHistoryBuffer  :   - create history buffer with %d elements for %d instances", maxElements,
          instances);
    const CCriticalSectionLock lock(m_CritSec);
    m_MaxElements = std::max(maxElements, 0);
    m_Instances.clear();
    m_Instances.resize(static_cast<size_t>(std::max(instances, 0)));
  }

  // Back to no instance; frees the memory.
  void Destroy() {
    const CCriticalSectionLock lock(m_CritSec);
    std::vector<std::vector<T>>().swap(m_Instances);
  }

  // Empties one instance.
  void Clear(int instance) {
    const CCriticalSectionLock lock(m_CritSec);
    if (Exists(instance)) m_Instances[static_cast<size_t>(instance)].clear();
  }

  // How many instances there are, with elements or without.
  int Instances() const {
    const CCriticalSectionLock lock(m_CritSec);
    return static_cast<int>(m_Instances.size());
  }

  // Returns how many elements the instance holds then; 0 when there is no such instance.
  int Append(int instance, const T& element) {
    const CCriticalSectionLock lock(m_CritSec);
    if (!Exists(instance) || m_MaxElements == 0) return 0;
    std::vector<T>& elements = m_Instances[static_cast<size_t>(instance)];
    if (elements.size() >= static_cast<size_t>(m_MaxElements)) {
      elements.erase(elements.begin());
    } else if (elements.size() == elements.capacity()) {
      Grow(elements);
    }
    elements.push_back(element);
    return static_cast<int>(elements.size());
  }

  // Calls visit(const T&) under the lock for the newest element alone, or for every element from the oldest on. False
  // when there is no such instance; an instance without elements is visited without a call.
  template <typename Visit>
  bool Read(int instance, bool newestOnly, Visit visit) const {
    int instances = 0;
    int size = 0;
    {
      const CCriticalSectionLock lock(m_CritSec);
      if (!Exists(instance)) return false;
      const std::vector<T>& elements = m_Instances[static_cast<size_t>(instance)];
      instances = static_cast<int>(m_Instances.size());
      size = static_cast<int>(elements.size());
      const auto first = newestOnly && size > 0 ? elements.end() - 1 : elements.begin();
      std::for_each(first, elements.end(), visit);
    }
    TRACE(4, "\nCDataHistoryBuffer  : Requested item: Instance %d, Index %d Max: Instance %d", instance, size - 1,
          instances);
    return true;
  }

 private:
  // The lock is held.
  bool Exists(int instance) const { return instance >= 0 && static_cast<size_t>(instance) < m_Instances.size(); }

  // Doubles, but never past the maximum: plain growth of the vector would overshoot the bound.
  void Grow(std::vector<T>& elements) const {
    constexpr size_t kFirstCapacity = 16;
    elements.reserve(std::min(std::max(kFirstCapacity, 2 * elements.size()), static_cast<size_t>(m_MaxElements)));
  }

  mutable CCriticalSection m_CritSec;
  std::vector<std::vector<T>> m_Instances;
  int m_MaxElements = 0;
};
