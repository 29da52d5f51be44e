#pragma once

#include "ravctl/line/command.h"

namespace ravctl {

void AddPci(Command& root);

}  // namespace ravctl
