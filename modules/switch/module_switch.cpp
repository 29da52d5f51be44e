// The module switch: loads the modules of the directory "modules" beside this library in the order of their names,
// starts and stops them, passes the daemon's notifications on and unloads them in the opposite order.
// module_interface.h is what it asks of a module.

#include <dirent.h>
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "base/whole_file.h"
#include "daemon/module_abi.h"
#include "platform/ini_file.h"
#include "switch/hosted_module.h"

namespace {

// "/usr/lib/ravd/libswitch.so" => "/usr/lib/ravd/modules"
std::string ModuleDirectory() {
  Dl_info info{};
  if (::dladdr(reinterpret_cast<void*>(&ModuleDirectory), &info) == 0) return "modules";
  const std::string path = info.dli_fname;
  const size_t slash = path.rfind('/');
  return (slash == std::string::npos ? "." : path.substr(0, slash)) + "/modules";
}

std::vector<std::string> ListModules(const std::string& directory) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(::opendir(directory.c_str()), ::closedir);
  while (const dirent* entry = stream != nullptr ? ::readdir(stream.get()) : nullptr) {
    const std::string name = entry->d_name;
    if (name.size() > 3 && name[0] != '.' && name.ends_with(".so")) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

constexpr const char* kThreads = "/proc/self/task";

// 0 when it cannot be told.
size_t CountThreads() {
  size_t count = 0;
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(::opendir(kThreads), ::closedir);
  while (const dirent* entry = stream != nullptr ? ::readdir(stream.get()) : nullptr)
    count += entry->d_name[0] != '.';
  return count;
}

// One that was joined may be listed for a moment yet.
bool HasMoreThreadsThan(size_t before) {
  for (int look = 0; look < 50 && CountThreads() > before; ++look)
    ::usleep(2000);
  return CountThreads() > before;
}

bool IsWanted(const std::string& fileName) {
  CIniFile settings;
  settings.Open(kModulesFile);
  return settings.GetNumber(fileName.substr(0, fileName.rfind('.')).c_str(), "Run", 1) != 0;
}

class ModuleSwitch final : public ISwitch {
 public:
  bool LoadModules(const _ExtensionModuleLoaderConfig& config) override {
    const std::string directory = ModuleDirectory();
    TRACE(2, "\nModuleSwitch        : Load modules of %s (run mode %u)", directory.c_str(), config.RunMode);
    for (const std::string& name : ListModules(directory)) {
      if (IsWanted(name)) {
        m_Modules.emplace_back(directory, name);
      } else {
        TRACE(2, "\nModuleSwitch        : %s is not to run, says %s", name.c_str(), kModulesFile);
      }
    }
    WriteStates();
    return true;
  }

  bool UnloadModules(uint32_t) override {
    if (HasMoreThreadsThan(m_ThreadsBefore)) {
      TRACE(1, "\nModuleSwitch        : WARNING! Threads of modules still run; all modules stay in memory");
      for (HostedModule& module : m_Modules)
        module.KeepLoaded();
    }
    while (!m_Modules.empty()) {
      TRACE(2, "\nModuleSwitch        : Unload %s", m_Modules.back().Name().c_str());
      m_Modules.pop_back();
    }
    ::unlink(kModuleStates);
    return true;
  }

  void StartModules() override {
    m_ThreadsBefore = CountThreads();
    for (HostedModule& module : m_Modules) {
      if (module.IsLoaded()) module.Start();
      WriteStates();  // after each one: those that come later see it
    }
  }

  void StopModules() override {
    for (auto module = m_Modules.rbegin(); module != m_Modules.rend(); ++module)
      module->Stop();
    WriteStates();
  }

  void NotifyEvent(uint32_t event, void* data, void*) override {
    for (HostedModule& module : m_Modules)
      module.Notify(event, event == SW_NOTIFY_OS_SHUTDOWN ? static_cast<const int32_t*>(data) : nullptr);
  }

 private:
  void WriteStates() const {
    std::string text = "[ravd]\nPid=" + std::to_string(::getpid()) + "\n";
    for (const HostedModule& module : m_Modules)
      text += module.Describe();
    if (ReplaceText(kModuleStates, text, 0644)) return;
    TRACE(1, "\nModuleSwitch        : WARNING! %s is not written: %s", kModuleStates, ::strerror(errno));
  }

  std::list<HostedModule> m_Modules;
  size_t m_ThreadsBefore = SIZE_MAX;  // of the process, before the first module was started
};

ModuleSwitch& Switch() {
  static ModuleSwitch instance;
  return instance;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void SW_AddRef() {}

__attribute__((visibility("default"))) void SW_Release() {
  TRACE(3, "\nModuleSwitch        : reference given back");
}

__attribute__((visibility("default"))) bool SW_QueryInterface(uint32_t identifier, ISwitch** switchInterface) {
  if (identifier != 0) return false;
  *switchInterface = &Switch();
  return true;
}
}
