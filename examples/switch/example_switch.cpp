// A module switch to copy: loads every module of the directory "modules" beside this library, starts and stops them,
// passes the daemon's notifications on and unloads them in the opposite order.

#include <dirent.h>
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "daemon/switch_interface.h"
#include "switch/module.h"
#include "trace/debug.h"

namespace {

using StartFunction = decltype(&ModuleStart);
using StopFunction = decltype(&ModuleStop);
using NotifyFunction = decltype(&ModuleNotify);

struct Module {
  std::string name;
  void* library = nullptr;
  StartFunction start = nullptr;
  StopFunction stop = nullptr;
  NotifyFunction notify = nullptr;  // may be null
  bool running = false;
};

// "/usr/lib/ravd/libswitch.so" => "/usr/lib/ravd/modules"
std::string ModuleDirectory() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&ModuleDirectory), &info) == 0) return "modules";
  const std::string path = info.dli_fname;
  const size_t slash = path.rfind('/');
  return (slash == std::string::npos ? "." : path.substr(0, slash)) + "/modules";
}

std::vector<std::string> ListModules(const std::string& directory) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(directory.c_str()), closedir);
  while (const dirent* entry = stream != nullptr ? readdir(stream.get()) : nullptr) {
    const std::string name = entry->d_name;
    if (name.size() > 3 && name.substr(name.size() - 3) == ".so") names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

using Names = std::set<std::string>;

// "4711" of a thread, "7 /dev/null" of a descriptor; not the descriptor that reads the directory.
Names ListEntries(const std::string& directory) {
  Names names;
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(directory.c_str()), closedir);
  while (const dirent* entry = stream != nullptr ? readdir(stream.get()) : nullptr) {
    const std::string name = entry->d_name;
    if (name[0] == '.' || name == std::to_string(dirfd(stream.get()))) continue;
    char target[256];
    const ssize_t length = readlink((directory + "/" + name).c_str(), target, sizeof target);
    names.insert(length > 0 ? name + " " + std::string(target, static_cast<size_t>(length)) : name);
  }
  return names;
}

// What a module must give back.
struct Belongings {
  Names threads = ListEntries("/proc/self/task");
  Names descriptors = ListEntries("/proc/self/fd");
};

class ExampleSwitch : public ISwitch {
 public:
  bool LoadModules(const _ExtensionModuleLoaderConfig& config) override {
    const std::string directory = ModuleDirectory();
    TRACE(2, "\nExampleSwitch       : Load modules of %s (run mode %u)", directory.c_str(), config.RunMode);
    for (const std::string& name : ListModules(directory))
      Load(directory, name);
    return true;
  }

  bool UnloadModules(uint32_t) override {
    for (; !m_Modules.empty(); m_Modules.pop_back()) {
      TRACE(2, "\nExampleSwitch       : Unload %s", m_Modules.back().name.c_str());
      dlclose(m_Modules.back().library);
    }
    return true;
  }

  void StartModules() override {
    m_Before = Belongings();
    for (Module& module : m_Modules) {
      module.running = module.start();
      TRACE(module.running ? 2U : 1U, "\nExampleSwitch       : %s %s", module.name.c_str(),
            module.running ? "started" : "FAILED to start");
    }
  }

  void StopModules() override {
    for (auto module = m_Modules.rbegin(); module != m_Modules.rend(); ++module) {
      if (!module->running) continue;
      module->stop();
      module->running = false;
      TRACE(2, "\nExampleSwitch       : %s stopped", module->name.c_str());
    }
    ReportWhatIsLeft();
  }

  void NotifyEvent(uint32_t event, void* data, void*) override {
    for (const Module& module : m_Modules) {
      if (module.running && module.notify != nullptr) module.notify(event, data);
    }
  }

 private:
  // A thread that was waited for is there for a moment more, and other threads of the daemon open and close files.
  void ReportWhatIsLeft() const {
    Belongings now;
    const auto isMore = [&] {
      return now.threads.size() > m_Before.threads.size() || now.descriptors.size() > m_Before.descriptors.size();
    };
    for (int look = 0; look < 50 && isMore(); ++look) {
      usleep(2000);
      now = Belongings();
    }
    if (!isMore()) return;
    ReportNew("thread", m_Before.threads, now.threads);
    ReportNew("descriptor", m_Before.descriptors, now.descriptors);
  }

  // The daemon's own are among them when its trace went on in another file meanwhile.
  static void ReportNew(const char* kind, const Names& before, const Names& now) {
    if (now.size() <= before.size()) return;
    for (const std::string& name : now)
      if (!before.contains(name)) TRACE(1, "\nExampleSwitch       : ERROR! Left behind: %s %s", kind, name.c_str());
  }

  void Load(const std::string& directory, const std::string& name) {
    Module module;
    module.name = name;
    module.library = dlopen((directory + "/" + name).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module.library == nullptr) {
      TRACE(1, "\nExampleSwitch       : ERROR! %s", dlerror());
      return;
    }
    module.start = reinterpret_cast<StartFunction>(dlsym(module.library, "ModuleStart"));
    module.stop = reinterpret_cast<StopFunction>(dlsym(module.library, "ModuleStop"));
    module.notify = reinterpret_cast<NotifyFunction>(dlsym(module.library, "ModuleNotify"));
    if (module.start == nullptr || module.stop == nullptr) {
      TRACE(1, "\nExampleSwitch       : ERROR! %s lacks ModuleStart or ModuleStop", name.c_str());
      dlclose(module.library);
      return;
    }
    m_Modules.push_back(module);
  }

  std::vector<Module> m_Modules;
  Belongings m_Before;
};

ExampleSwitch& Switch() {
  static ExampleSwitch instance;
  return instance;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void SW_AddRef() {}

__attribute__((visibility("default"))) void SW_Release() {
  TRACE(3, "\nExampleSwitch       : reference given back");
}

__attribute__((visibility("default"))) bool SW_QueryInterface(uint32_t identifier, ISwitch** switchInterface) {
  if (identifier != 0) return false;
  *switchInterface = &Switch();
  return true;
}
}
