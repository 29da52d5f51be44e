#pragma once

#include <functional>
#include <string>

namespace ravctl {

// How a piece of work in a child process ended.
struct ChildResult {
  bool isTimeout = false;  // it was killed when the time was over
  int signal = 0;          // that ended it, 0 when none did
  int status = -1;         // exit status, -1 when it did not end by itself
  std::string report;      // what the work wrote to its descriptor
};

// Runs the work in a child, for what may crash or hang; its result is the exit status. reportFd is where it may write
// what it found. The child is in a process group of its own; it and all that it started are killed when the time is
// over. The child's standard output goes to the standard error, so that it cannot mix with a command's answer.
// Throws CommandError when no child can be made.
ChildResult RunInChild(int timeoutSeconds, const std::function<int(int reportFd)>& work);

}  // namespace ravctl
