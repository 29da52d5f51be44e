#pragma once

#include "ravctl/line/command.h"

namespace ravctl {

void AddSlots(Command& root);

}  // namespace ravctl
