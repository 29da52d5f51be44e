#pragma once

#include "ravctl/line/command.h"

namespace ravctl {

// ravctl module ...
void AddModuleCheck(Command& module);
void AddModuleRun(Command& module);

// What they answer.
extern const Schema kModuleCheck, kModuleRun;

}  // namespace ravctl
