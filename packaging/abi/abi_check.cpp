// Compares the binary interface that the public headers describe with the one of an earlier release.
//
//   abi_check              prints it: "slot", "size" or "offset", what it belongs to, the number
//   abi_check REFERENCE    0 when everything that the file records is unchanged, 1 otherwise
//
// Something new may join. The trace object may grow: modules never make one of their own.

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <string>

#include "daemon/module_abi.h"

namespace {

// What the C++ ABI of the platform keeps in a pointer to a virtual operation: 1 + the distance in the table.
template <typename Operation>
long Slot(Operation operation) {
  ptrdiff_t words[2];
  static_assert(sizeof operation == sizeof words);
  std::memcpy(words, &operation, sizeof words);
  return (words[0] & 1) != 0 ? static_cast<long>(words[0] - 1) / 8 : -1;
}

#pragma GCC diagnostic ignored "-Winvalid-offsetof"
std::map<std::string, long> Describe() {
  using Variadic = void (CDebug::*)(const char*, ...);
  using VariadicWithLevel = void (CDebug::*)(unsigned int, const char*, ...);
  return {
      {"slot ISwitch::AddRef", Slot(&ISwitch::AddRef)},
      {"slot ISwitch::Release", Slot(&ISwitch::Release)},
      {"slot ISwitch::LoadModules", Slot(&ISwitch::LoadModules)},
      {"slot ISwitch::UnloadModules", Slot(&ISwitch::UnloadModules)},
      {"slot ISwitch::StartModules", Slot(&ISwitch::StartModules)},
      {"slot ISwitch::StopModules", Slot(&ISwitch::StopModules)},
      {"slot ISwitch::Reserved6", Slot(&ISwitch::Reserved6)},
      {"slot ISwitch::Reserved15", Slot(&ISwitch::Reserved15)},
      {"slot ISwitch::NotifyEvent", Slot(&ISwitch::NotifyEvent)},
      {"size ISwitch", sizeof(ISwitch)},
      {"size _ExtensionModuleLoaderConfig", sizeof(_ExtensionModuleLoaderConfig)},
      {"offset _ExtensionModuleLoaderConfig::Flags", offsetof(_ExtensionModuleLoaderConfig, Flags)},
      {"offset _ExtensionModuleLoaderConfig::RunMode", offsetof(_ExtensionModuleLoaderConfig, RunMode)},
      {"value SW_NOTIFY_STOP", SW_NOTIFY_STOP},
      {"value SW_NOTIFY_OS_SHUTDOWN", SW_NOTIFY_OS_SHUTDOWN},
      {"value RUNMODE_NORMAL", RUNMODE_NORMAL},
      {"value RUNMODE_AGENTLESS", RUNMODE_AGENTLESS},
      {"value RUNMODE_VANTLE", RUNMODE_VANTLE},
      {"value RUNMODE_TESSEL", RUNMODE_TESSEL},
      {"value RUNMODE_DORLAN", RUNMODE_DORLAN},
      {"slot CDebug::IsMaster", Slot(&CDebug::IsMaster)},
      {"slot CDebug::Init", Slot(&CDebug::Init)},
      {"slot CDebug::Print", Slot(&CDebug::Print)},
      {"slot CDebug::PrintAlways(format)", Slot(static_cast<Variadic>(&CDebug::PrintAlways))},
      {"slot CDebug::PrintAlways(level, format)", Slot(static_cast<VariadicWithLevel>(&CDebug::PrintAlways))},
      {"slot CDebug::PrintAlwaysV", Slot(&CDebug::PrintAlwaysV)},
      {"slot CDebug::ClientPrintV", Slot(&CDebug::ClientPrintV)},
      {"size CDebug", sizeof(CDebug)},
      {"offset CDebug::m_TraceLevel", offsetof(CDebug, m_TraceLevel)},
      {"offset CDebug::m_TraceLevelSaved", offsetof(CDebug, m_TraceLevelSaved)},
      {"offset CDebug::m_FileDebugLevel", offsetof(CDebug, m_FileDebugLevel)},
      {"offset CDebug::m_TraceFlags", offsetof(CDebug, m_TraceFlags)},
      {"offset CDebug::m_TraceActive", offsetof(CDebug, m_TraceActive)},
  };
}

// "slot ISwitch::AddRef = 0" of the reference against the same fact now.
bool Holds(const std::map<std::string, long>& now, const std::string& line) {
  const size_t equals = line.rfind(" = ");
  if (equals == std::string::npos) return false;
  const std::string fact = line.substr(0, equals);
  const long recorded = std::strtol(line.c_str() + equals + 3, nullptr, 10);
  const auto found = now.find(fact);
  if (found == now.end()) return false;
  return fact == "size CDebug" ? found->second >= recorded : found->second == recorded;
}

int Compare(const std::map<std::string, long>& now, const char* path) {
  std::ifstream file(path);
  int compared = 0;
  int changed = 0;
  for (std::string line; std::getline(file, line); ++compared) {
    if (Holds(now, line)) continue;
    std::fprintf(stderr, "%s: no longer so: %s\n", path, line.c_str());
    ++changed;
  }
  std::printf("%d facts compared, %d changed\n", compared, changed);
  return compared > 0 && changed == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::map<std::string, long> now = Describe();
  if (argc > 1) return Compare(now, argv[1]);
  for (const auto& [fact, value] : now)
    std::printf("%s = %ld\n", fact.c_str(), value);
  return 0;
}
