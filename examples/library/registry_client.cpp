// Counts its own runs in the registry. Whoever kills it, whenever, finds the old number or the new one afterwards: a
// save replaces the file, and what cannot be read falls back to the copy of before. The registry is root's.

#include <cstdio>

#include "registry/registry.h"

constexpr const char* kKey = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Examples\\RunCounter";

int main() {
  CRegistry registry;
  registry.Open("", nullptr);  // the root, as the root keys are missing while the registry is empty
  if (registry.CreateKey(nullptr, kKey) != CRegistry::kSuccess) {
    std::fprintf(stderr, "no key to write to\n");
    return 1;
  }
  unsigned int runs = 0;
  if (registry.QueryValue(&runs, "Runs") != CRegistry::kSuccess) std::printf("this is the first run\n");
  if (registry.SetValue("Runs", runs + 1) != CRegistry::kSuccess) return 1;
  CRegistry::SaveTree();  // else the end of the object does it

  CRegistry stored;
  CRegistry::SetupTree(true);  // what a process that begins now would find
  unsigned int found = 0;
  if (stored.Open(kKey, nullptr) != CRegistry::kSuccess || stored.QueryValue(&found, "Runs") != CRegistry::kSuccess ||
      found != runs + 1) {
    std::fprintf(stderr, "run %u was not stored\n", runs + 1);
    return 1;
  }
  std::printf("run %u is stored\n", found);
}
