#pragma once

#include <cstddef>

// Source of byte arrays that a caller can exchange for one of its own. This one takes them from the heap, one array
// per request, and has nothing to lock, so any thread may call it.
class CMemoryPool {
 public:
  CMemoryPool() = default;
  virtual ~CMemoryPool() = default;
  CMemoryPool(const CMemoryPool&) = delete;
  CMemoryPool& operator=(const CMemoryPool&) = delete;

  // A new array of that many bytes, which the caller gives back with PoolFree; null when memory runs out.
  virtual unsigned char* PoolAlloc(size_t size);
  // Deletes the array and sets the caller's pointer to null. Null is allowed.
  virtual void PoolFree(unsigned char*& memory);

  virtual void LockPool() {}
  virtual void UnlockPool() {}
};
