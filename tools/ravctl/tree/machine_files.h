#pragma once

#include <string>
#include <vector>

#include "ravctl/tree/capture.h"

namespace ravctl {

// Captures what the library and the commands read of this machine.
// traces: the trace files of the configured directories as well.
void CaptureMachine(bool traces, Capture& capture);

// What the library asks the kernel or a command for and no file can hold.
const std::vector<std::string>& LiveOnlyAnswers();

}  // namespace ravctl
