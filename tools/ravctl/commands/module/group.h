#pragma once

#include "ravctl/line/command.h"

namespace ravctl {

// ravctl module ...
void AddModuleList(Command& module);
void AddModuleCheck(Command& module);
void AddModuleRun(Command& module);

// What they answer.
extern const Schema kModuleList, kModuleCheck, kModuleRun;

// What the switch of ravd-modules writes about its modules; modules/switch/module_interface.h describes it.
inline constexpr const char* kModuleStates = "/run/ravd-modules.ini";

}  // namespace ravctl
