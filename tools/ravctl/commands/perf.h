#pragma once

#include "ravctl/line/command.h"

namespace ravctl {

void AddPerf(Command& root);

}  // namespace ravctl
