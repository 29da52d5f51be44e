#pragma once

#include "ravctl/line/command.h"

namespace ravctl {

// completion and man: texts made from the registered commands and options themselves.
void AddShellTexts(Command& root);

}  // namespace ravctl
