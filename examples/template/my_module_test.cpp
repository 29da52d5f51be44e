// Loads the built module the way the example switch does, and runs it through its life: test MODULE.so

#include <dirent.h>
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "daemon/switch_interface.h"
#include "switch/module.h"
#include "template/trace_stand_in.h"

namespace {

int failures = 0;

void Check(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "FAILED: %s\n", what);
  ++failures;
}

bool Contains(const std::vector<std::string>& trace, const std::string& message) {
  return std::find(trace.begin(), trace.end(), message) != trace.end();
}

int CountTasks() {
  DIR* tasks = opendir("/proc/self/task");
  int count = 0;
  while (const dirent* entry = tasks != nullptr ? readdir(tasks) : nullptr)
    count += entry->d_name[0] != '.';
  if (tasks != nullptr) closedir(tasks);
  return count;
}

// A thread that was waited for is still listed for a moment.
int CountThreads() {
  int count = CountTasks();
  for (int look = 0; look < 20; ++look) {
    usleep(1000);
    count = std::min(count, CountTasks());
  }
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  void* library = argc == 2 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : nullptr;
  if (library == nullptr) {
    std::fprintf(stderr, "%s\n", argc == 2 ? dlerror() : "usage: my_module_test MODULE.so");
    return 2;
  }
  const auto start = reinterpret_cast<decltype(&ModuleStart)>(dlsym(library, "ModuleStart"));
  const auto stop = reinterpret_cast<decltype(&ModuleStop)>(dlsym(library, "ModuleStop"));
  const auto notify = reinterpret_cast<decltype(&ModuleNotify)>(dlsym(library, "ModuleNotify"));
  if (start == nullptr || stop == nullptr || notify == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 2;
  }
  // With the first thread the run-time system of a checking build starts one of its own.
  Check(start(), "the module starts");
  stop();
  const int threads = CountThreads();

  // What it does is seen in its trace; a module that is stopped leaves no thread, however early the stop comes.
  SetTraceLevel(4);
  Check(start(), "the module starts again");
  notify(SW_NOTIFY_STOP, nullptr);
  int32_t runLevel = 6;
  notify(SW_NOTIFY_OS_SHUTDOWN, &runLevel);
  stop();
  const std::vector<std::string> trace = TakeTrace();
  Check(Contains(trace, "MyModule            : the system goes down, run level 6"), "it learns of a shutdown");
  Check(Contains(trace, "MyModule            : -> Run"), "its thread runs");
  Check(Contains(trace, "MyModule            : <- Run"), "its thread ends");
  Check(CountThreads() == threads, "no thread is left");

  // With the trace off it writes nothing, and it can be started again.
  SetTraceLevel(0);
  Check(start(), "the module starts without trace");
  stop();
  Check(TakeTrace().empty(), "no trace when tracing is off");

  Check(dlclose(library) == 0, "the module can be unloaded");
  if (failures == 0) std::puts("passed");
  return failures == 0 ? 0 : 1;
}
