// The check of a registry file against the reader of the library: a file without damage is read whole, as many keys and
// values as were counted, and reads back after it is written.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ravctl/registry/store_check.h"
#include "registry/registry_node.h"

namespace {

constexpr size_t kMaxInput = 64 * 1024;

void Require(bool holds) {
  if (!holds) std::abort();
}

// As the library reads the bytes and writes them.
std::string ReadAndWrite(std::string bytes) {
  CRegistryNode root;
  FILE* in = ::fmemopen(bytes.data(), bytes.size(), "r");
  Require(in != nullptr);
  root.restoreNode(in);
  std::fclose(in);
  char* text = nullptr;
  size_t size = 0;
  FILE* out = ::open_memstream(&text, &size);
  root.dumpNode(out);
  std::fclose(out);
  std::string written(text, size);
  std::free(text);
  return written;
}

// Each has a line; an empty one ends a key.
size_t Entries(const std::string& written) {
  size_t entries = 0;
  char before = '\n';
  for (const char letter : written) {
    if (before == '\n' && letter != '\n') ++entries;
    before = letter;
  }
  return entries;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const ravctl::StoreCheck check = ravctl::CheckStore(bytes);
  Require(check.findings.size() <= ravctl::kMaxFindings && (check.unlisted == 0 || !check.IsWhole()));
  Require(size != 0 || !check.IsWhole());
  if (size == 0) return 0;
  const std::string written = ReadAndWrite(bytes);
  if (!check.IsWhole()) return 0;
  Require(Entries(written) == check.keys + check.values);
  const ravctl::StoreCheck again = ravctl::CheckStore(written);
  Require(again.IsWhole() && again.keys == check.keys && again.values == check.values);
  Require(ReadAndWrite(written) == written);
  return 0;
}
