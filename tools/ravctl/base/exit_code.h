#pragma once

namespace ravctl {

// What the process ends with. The numbers are an interface: scripts test them.
enum class ExitCode : int {
  kDone = 0,
  kNothingOrDifferent = 1,  // nothing was found, a difference was found, a check found a fault
  kUsage = 2,               // the command line is wrong
  kPermission = 3,          // the caller may not do that
  kInputMissing = 4,        // a file does not exist or cannot be read
  kInputDamaged = 5,        // a file was damaged; what could be read was printed
  kNotRunning = 6,          // the daemon does not run
  kNotWritten = 7,          // the answer could not be written, or not to its end
  kInternal = 70,           // a fault of the tool itself
};

}  // namespace ravctl
