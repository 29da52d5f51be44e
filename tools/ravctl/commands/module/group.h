#pragma once

#include "ravctl/line/command.h"

namespace ravctl {

// ravctl module ...
void AddModuleCheck(Command& module);
void AddModuleRun(Command& module);

}  // namespace ravctl
