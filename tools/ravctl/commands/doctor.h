#pragma once

#include "ravctl/line/command.h"

namespace ravctl {

// doctor
void AddDoctor(Command& root);

}  // namespace ravctl
