#pragma once

#include "ravctl/line/command.h"

namespace ravctl {

// bundle
void AddBundle(Command& root);

}  // namespace ravctl
