#include "firmware/memory_pool.h"

#include <new>

unsigned char* CMemoryPool::PoolAlloc(size_t size) {
  return new (std::nothrow) unsigned char[size];
}

void CMemoryPool::PoolFree(unsigned char*& memory) {
  delete[] memory;
  memory = nullptr;
}
