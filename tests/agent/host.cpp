// host WRITER.so READER.so: lends the two modules a trace object that has the daemon's table and first members and
// nothing else in common with it, as a daemon of another release may; loads them as a switch does. The library below
// them must trace through the table alone, be one for both, and leave with the last of them.

#include <dlfcn.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "template/trace_stand_in.h"

namespace {

int failures = 0;

void Check(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "FAILED: %s\n", what);
  ++failures;
}

bool Contains(const std::vector<std::string>& trace, const char* beginning) {
  return std::any_of(trace.begin(), trace.end(), [&](const std::string& line) { return line.starts_with(beginning); });
}

// For the registry, in a mount namespace that is nobody else's.
bool EmptyEtc() {
  return mount("none", "/etc", "tmpfs", 0, nullptr) == 0 && mkdir("/etc/pelrix", 0755) == 0;
}

bool IsLibraryLoaded() {
  void* library = dlopen("libravagent.so.3", RTLD_NOW | RTLD_NOLOAD);
  if (library != nullptr) dlclose(library);
  return library != nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 || !EmptyEtc()) return std::perror("no private /etc here"), 77;
  SetTraceLevel(6);
  void* modules[2] = {};
  for (int index = 0; index < 2; ++index) {
    modules[index] = dlopen(argv[index + 1], RTLD_NOW | RTLD_LOCAL);
    if (modules[index] == nullptr) return std::fprintf(stderr, "%s\n", dlerror()), 1;
  }
  Check(IsLibraryLoaded(), "the modules bring the library");
  for (int index = 0; index < 2; ++index) {
    const auto run = reinterpret_cast<bool (*)()>(dlsym(modules[index], "Run"));
    Check(run != nullptr && run(),
          index == 0 ? "the writer writes" : "the reader finds registry and event of the writer");
    remove("/etc/pelrix/registry");  // what is found is in memory
    remove("/etc/pelrix/registry.old");
  }
  const std::vector<std::string> trace = TakeTrace();
  Check(Contains(trace, "Writer              : arguments reach the table, however many: 7"), "the module traces here");
  Check(Contains(trace, "CRegistry::InitClass"), "the library traces here");
  SetTraceLevel(0);
  for (void* module : modules)
    dlclose(module);
  Check(!IsLibraryLoaded(), "the library leaves with the last module");
  Check(TakeTrace().empty(), "nothing is traced while the trace is off");
  return failures == 0 ? 0 : 1;
}
