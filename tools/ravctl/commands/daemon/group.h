#pragma once

#include "ravctl/line/command.h"

namespace ravctl {

// ravctl daemon ...
void AddDaemonStatus(Command& daemon);

}  // namespace ravctl
