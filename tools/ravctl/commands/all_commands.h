#pragma once

#include "ravctl/line/command.h"

namespace ravctl {

// Everything that ravctl can do, in the order in which the help shows it.
void AddAllCommands(Command& root);

}  // namespace ravctl
