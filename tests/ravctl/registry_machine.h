#pragma once

#include "ravctl/tool_machine.h"
#include "support/registry_state.h"

// A machine with a registry of every type of value.

inline constexpr const char* kStore =
    "[HKEY_LOCAL_MACHINE]\nPath=s=/opt/x\n"
    "[Unit]\nHome=es=%HOME%/unit\nKey=b=0a ff 01 \nPort=d=3172\nTop=d=-1\n"
    "[Deep]\nEvil=s=a\x1b[31m\xff\n\n\n\n"
    "[HKEY_USERS]\n\n\n";
inline constexpr const char* kBackup = "[HKEY_LOCAL_MACHINE]\nPath=s=/opt/old\n\n\n";

struct RegistryMachine : ToolRoot {
  RegistryMachine() { WriteFile(kRegistry, kStore); }

  // Names of the files in the registry's directory.
  std::string Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(HostPath("/etc/pelrix")))
      names.push_back(entry.path().filename());
    std::ranges::sort(names);
    return ::testing::PrintToString(names);
  }
};
