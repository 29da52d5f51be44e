#pragma once

#include "ravctl/line/command.h"

namespace ravctl {

// report
void AddReport(Command& root);

}  // namespace ravctl
