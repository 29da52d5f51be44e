#include "switch/hosted_module.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/ini_file.h"
#include "trace/debug.h"

namespace {

constexpr uint32_t kStartMs = 10'000;
constexpr uint32_t kStopMs = 2'000;

constexpr std::array kStateNames = {"loaded", "running", "stopped", "failed", "lost"};

template <typename Symbol>
Symbol* Find(void* library, const char* name) {
  return reinterpret_cast<Symbol*>(::dlsym(library, name));
}

// An INI file ends a value at these.
std::string AsValue(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char letter) { return letter == ';' || letter == '\n'; }, ',');
  return text;
}

struct BuildIdSearch {
  ElfW(Addr) base;
  std::string id;
};

// The note of the GNU build ID in one segment of notes, as hex digits.
std::string BuildIdIn(const char* note, size_t size) {
  const auto rounded = [](size_t length) { return (length + 3) & ~size_t{3}; };
  while (size >= sizeof(ElfW(Nhdr))) {
    ElfW(Nhdr) header;
    std::memcpy(&header, note, sizeof header);
    const size_t whole = sizeof header + rounded(header.n_namesz) + rounded(header.n_descsz);
    if (whole > size) return "";
    const char* name = note + sizeof header;
    if (header.n_type == NT_GNU_BUILD_ID && header.n_namesz == 4 && std::memcmp(name, "GNU", 4) == 0) {
      std::string digits;
      for (const char* byte = name + 4; byte < name + 4 + header.n_descsz; ++byte) {
        digits += "0123456789abcdef"[static_cast<unsigned char>(*byte) >> 4];
        digits += "0123456789abcdef"[*byte & 15];
      }
      return digits;
    }
    note += whole;
    size -= whole;
  }
  return "";
}

int LookForBuildId(dl_phdr_info* object, size_t, void* argument) {
  auto& search = *static_cast<BuildIdSearch*>(argument);
  if (object->dlpi_addr != search.base) return 0;
  for (int i = 0; i < object->dlpi_phnum && search.id.empty(); ++i) {
    const ElfW(Phdr)& segment = object->dlpi_phdr[i];
    if (segment.p_type != PT_NOTE) continue;
    search.id = BuildIdIn(reinterpret_cast<const char*>(object->dlpi_addr + segment.p_vaddr), segment.p_memsz);
  }
  return 1;
}

}  // namespace

HostedModule::HostedModule(const std::string& directory, const std::string& fileName)
    : m_Path(directory + "/" + fileName), m_Name(fileName.substr(0, fileName.rfind('.'))), m_Since(::time(nullptr)) {
  const char* reason = CheckOwner();
  if (reason == nullptr) reason = Open();
  if (reason != nullptr) {
    Fail(State::kFailed, "is not loaded", reason);
    return;
  }
  TRACE(2, "\nModuleSwitch        : %s loaded, version \"%s\", build ID \"%s\"", m_Name.c_str(), m_Version.c_str(),
        m_BuildId.c_str());
}

HostedModule::~HostedModule() {
  const bool isIdle = m_State == State::kStopped || m_Thread == nullptr;
  if (m_Library != nullptr && isIdle && !m_IsKept) ::dlclose(m_Library);
}

const char* HostedModule::CheckOwner() const {
  struct stat file {};
  if (::stat(m_Path.c_str(), &file) != 0) return "it cannot be looked at";
  if (!S_ISREG(file.st_mode)) return "it is no file";
  if (file.st_uid != 0 && file.st_uid != ::geteuid()) return "it belongs to another user";
  return (file.st_mode & (S_IWGRP | S_IWOTH)) != 0 ? "another user may write it" : nullptr;
}

const char* HostedModule::Open() {
  m_Library = ::dlopen(m_Path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (m_Library == nullptr) return ::dlerror();
  m_Start = Find<bool()>(m_Library, "ModuleStart");
  m_Stop = Find<void()>(m_Library, "ModuleStop");
  m_Notify = Find<void(uint32_t, void*)>(m_Library, "ModuleNotify");
  const auto* wanted = Find<const uint32_t>(m_Library, "ModuleInterface");
  if (const auto* version = Find<const char>(m_Library, "ModuleVersion")) m_Version = version;
  ReadBuildId();
  if (m_Start == nullptr || m_Stop == nullptr) return "it lacks ModuleStart or ModuleStop";
  return wanted != nullptr && *wanted != kModuleInterface ? "it was written for another module interface" : nullptr;
}

void HostedModule::ReadBuildId() {
  link_map* map = nullptr;
  if (::dlinfo(m_Library, RTLD_DI_LINKMAP, &map) != 0) return;
  BuildIdSearch search{map->l_addr, ""};
  ::dl_iterate_phdr(LookForBuildId, &search);
  m_BuildId = search.id;
}

uint32_t HostedModule::Setting(const char* key, uint32_t otherwise) const {
  CIniFile settings;
  settings.Open(kModulesFile);
  return settings.GetNumber(m_Name.c_str(), key, otherwise);
}

void HostedModule::SetState(State state) {
  m_State = state;
  m_Since = ::time(nullptr);
}

void HostedModule::Fail(State state, const char* what, const std::string& reason) {
  SetState(state);
  m_Reason = reason;
  TRACE(1, "\nModuleSwitch        : ERROR! %s %s: %s", m_Name.c_str(), what, reason.c_str());
  ::syslog(LOG_ERR, "module %s %s: %s", m_Name.c_str(), what, reason.c_str());
}

void HostedModule::Start() {
  m_Thread = std::make_unique<ModuleThread>();
  switch (m_Thread->Call([start = m_Start] { return start(); }, Setting("StartMs", kStartMs), m_Stop)) {
    case ModuleThread::Result::kDone:
      SetState(State::kRunning);
      TRACE(2, "\nModuleSwitch        : %s started", m_Name.c_str());
      break;
    case ModuleThread::Result::kRefused:
      return Fail(State::kFailed, "did not start", "it says that it cannot run");
    case ModuleThread::Result::kThrew:
      return Fail(State::kFailed, "did not start", m_Thread->Reason());
    case ModuleThread::Result::kLost:
      return Fail(State::kLost, "did not start", m_Thread->Reason());
  }
}

void HostedModule::Notify(uint32_t event, const int32_t* level) {
  if (!IsRunning() || m_Notify == nullptr) return;
  // The level is the thread's own: a late module must not read the caller's.
  const auto notify = [call = m_Notify, event, has = level != nullptr, copy = level != nullptr ? *level : 0]() mutable {
    call(event, has ? &copy : nullptr);
    return true;
  };
  const ModuleThread::Result result = m_Thread->Call(notify, Setting("StartMs", kStartMs));
  if (result == ModuleThread::Result::kLost) return Fail(State::kLost, "is lost in a notification", m_Thread->Reason());
  if (result == ModuleThread::Result::kDone) return;
  TRACE(1, "\nModuleSwitch        : ERROR! %s takes no notification: %s", m_Name.c_str(), m_Thread->Reason().c_str());
}

void HostedModule::Stop() {
  if (!IsRunning()) return;
  const ModuleThread::Result result =
      m_Thread->Call([stop = m_Stop] { return stop(), true; }, Setting("StopMs", kStopMs));
  if (result == ModuleThread::Result::kLost) return Fail(State::kLost, "does not stop", m_Thread->Reason());
  if (result == ModuleThread::Result::kThrew) return Fail(State::kLost, "did not stop", m_Thread->Reason());
  m_Thread.reset();
  SetState(State::kStopped);
  TRACE(2, "\nModuleSwitch        : %s stopped", m_Name.c_str());
}

std::string HostedModule::Describe() const {
  std::string text = "[" + m_Name + "]\nState=" + kStateNames[static_cast<size_t>(m_State)] +
                     "\nSince=" + std::to_string(m_Since) + "\nFile=" + AsValue(m_Path) + "\n";
  const std::pair<const char*, const std::string&> more[] = {
      {"Version", m_Version}, {"BuildId", m_BuildId}, {"Reason", m_Reason}};
  for (const auto& [key, value] : more)
    if (!value.empty()) text += std::string(key) + "=" + AsValue(value) + "\n";
  return text;
}
