#pragma once

#include <string>
#include <vector>

#include "ravctl/tree/capture.h"

namespace ravctl {

// Which traces of the daemon come along.
struct TraceChoice {
  bool isWanted = false;              // else how the kept runs ended is all
  std::string directory;              // where it is configured to trace
  std::vector<std::string> keptRuns;  // their directories
};

// Captures what the library and the commands read of this machine.
void CaptureMachine(const TraceChoice& traces, Capture& capture);

// What the library asks the kernel or a command for and no file can hold.
const std::vector<std::string>& LiveOnlyAnswers();

}  // namespace ravctl
