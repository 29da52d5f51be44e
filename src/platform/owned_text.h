#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

// A text of the C library's own allocation, such as that of realpath.
struct FreeText {
  void operator()(char* text) const { std::free(text); }
};
using MallocText = std::unique_ptr<char, FreeText>;

// A copy that its holder owns; null when there is no memory. text is not null.
inline std::unique_ptr<char[]> CopyText(const char* text) {
  const size_t size = std::strlen(text) + 1;
  std::unique_ptr<char[]> copy(new (std::nothrow) char[size]);
  if (copy != nullptr) std::memcpy(copy.get(), text, size);
  return copy;
}

// "\n\nabc" => "abc"; a text of nothing but newlines stays.
inline const char* SkipLeadingNewlines(const char* text) {
  const char* rest = text + std::strspn(text, "\n");
  return *rest != '\0' ? rest : text;
}
