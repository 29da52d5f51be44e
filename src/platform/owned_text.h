#pragma once

#include <cstring>
#include <memory>
#include <new>

// A copy that its holder owns; null when there is no memory. text is not null.
inline std::unique_ptr<char[]> CopyText(const char* text) {
  const size_t size = std::strlen(text) + 1;
  std::unique_ptr<char[]> copy(new (std::nothrow) char[size]);
  if (copy != nullptr) std::memcpy(copy.get(), text, size);
  return copy;
}
