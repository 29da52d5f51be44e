#pragma once

#include <string>
#include <vector>

#include "ravctl/tree/capture.h"

namespace ravctl {

// Captures what the library and the commands read of this machine.
// traceDirectory: where the daemon's trace files are configured to be, for these as well; empty: none of them.
void CaptureMachine(const std::string& traceDirectory, Capture& capture);

// What the library asks the kernel or a command for and no file can hold.
const std::vector<std::string>& LiveOnlyAnswers();

}  // namespace ravctl
