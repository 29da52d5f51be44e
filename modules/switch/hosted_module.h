#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "switch/module_interface.h"
#include "switch/module_thread.h"

// One module of the switch from its shared object to its end. Used by the daemon's main thread. Whatever a module does
// wrong is traced, told to syslog and kept as its state; nothing comes out of here.
class HostedModule {
 public:
  enum class State { kLoaded, kRunning, kStopped, kFailed, kLost };

  // Loads the file and looks at what it exports. Refused, which makes it kFailed: one that another user could have
  // written, one that does not load, lacks ModuleStart or ModuleStop or asks for another interface.
  // A static constructor of a module that throws is beyond help: it ends in the dynamic loader.
  HostedModule(const std::string& directory, const std::string& fileName);
  // Closes the shared object of one that never started, or stopped well, unless it was told that threads are left.
  ~HostedModule();
  HostedModule(const HostedModule&) = delete;
  HostedModule& operator=(const HostedModule&) = delete;

  void Start();
  // level: the run level that SW_NOTIFY_OS_SHUTDOWN brings.
  void Notify(uint32_t event, const int32_t* level);
  void Stop();
  // Nobody knows whose the threads are that still run: the code stays where it is.
  void KeepLoaded() { m_IsKept = true; }

  bool IsLoaded() const { return m_State == State::kLoaded; }
  bool IsRunning() const { return m_State == State::kRunning; }
  const std::string& Name() const { return m_Name; }
  // Its section of kModuleStates.
  std::string Describe() const;

 private:
  const char* Open();
  const char* CheckOwner() const;
  void ReadBuildId();
  void SetState(State state);
  void Fail(State state, const char* what, const std::string& reason);
  uint32_t Setting(const char* key, uint32_t otherwise) const;

  std::string m_Path;
  std::string m_Name;  // of the file without ".so"
  std::string m_Version;
  std::string m_BuildId;
  std::string m_Reason;
  State m_State = State::kLoaded;
  time_t m_Since = 0;
  bool m_IsKept = false;
  void* m_Library = nullptr;
  decltype(&ModuleStart) m_Start = nullptr;
  decltype(&ModuleStop) m_Stop = nullptr;
  decltype(&ModuleNotify) m_Notify = nullptr;  // may be null
  std::unique_ptr<ModuleThread> m_Thread;
};
