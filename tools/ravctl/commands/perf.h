#pragma once

#include "ravctl/answer/output.h"
#include "ravctl/line/command.h"

namespace ravctl {

void AddPerf(Command& root);

extern const Schema kPerf;
// Its answer of the running machine, for a bundle; takes three quarters of a second.
Json ReadPerf();

}  // namespace ravctl
