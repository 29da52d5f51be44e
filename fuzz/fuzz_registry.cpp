// The reader of registry files: any bytes are read without harm, and what was read is written so that it reads back.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "registry/registry_node.h"

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > kMaxInput) return 0;
  CRegistryNode first;
  Restore(first, std::string(reinterpret_cast<const char*>(data), size));
  const std::string written = Dump(first);
  CRegistryNode second;
  Restore(second, written);
  if (Dump(second) != written) std::abort();
  return 0;
}
