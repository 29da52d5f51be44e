// The reader of registry files: any bytes are read without harm, and what was read is written so that it reads back.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "registry/registry_node.h"
#include "registry/registry_text.h"

namespace {

constexpr size_t kMaxInput = 64 * 1024;

void Restore(CRegistryNode& node, std::string text) {
  FILE* file = ::fmemopen(text.data(), text.size(), "r");
  if (file == nullptr) return;
  node.restoreNode(file);
  std::fclose(file);
}

std::string Dump(CRegistryNode& node) {
  char* text = nullptr;
  size_t size = 0;
  FILE* file = ::open_memstream(&text, &size);
  node.dumpNode(file);
  std::fclose(file);
  std::string dumped(text, size);
  std::free(text);
  return dumped;
}

// A block of many short numbers is written longer than it was read.
bool HasLongLine(const std::string& text) {
  size_t begin = 0;
  for (size_t end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1)
    if (end - begin >= kRegistryLineLimit) return true;
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > kMaxInput) return 0;
  CRegistryNode first;
  Restore(first, std::string(reinterpret_cast<const char*>(data), size));
  const std::string written = Dump(first);
  if (HasLongLine(written)) return 0;
  CRegistryNode second;
  Restore(second, written);
  if (Dump(second) != written) std::abort();
  return 0;
}
