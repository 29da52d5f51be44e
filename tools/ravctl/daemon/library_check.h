#pragma once

#include <string>

#include "ravctl/answer/finding.h"

namespace ravctl {

// Whether a library can be the module switch of the daemon, or a module of the example switch: its symbols, and who may
// write to it, to what it needs (but for what lies in the usual directories of the system), to the directories above
// and to the links on the way. With loads it is loaded in a child, and the
// interface of a switch is looked at; root loads nothing that another user could have changed. The check "writable" is
// of the right to write. Throws CommandError when the file is no shared library of this machine.
Findings CheckLibrary(const std::string& library, bool loads);

// The build ID that the linker left in the file, in hexadecimal digits; empty when there is none.
std::string BuildIdOf(const std::string& library);

}  // namespace ravctl
