#pragma once

#include <string>
#include <string_view>

#include "ravctl/answer/finding.h"

namespace ravctl {

// What the daemon needs before anything else, and what is left of one that did not end by itself. The findings bear no
// name of their check.

// The module switch: that of the running daemon, else the one where the service looks for it. It is loaded only when no
// daemon runs that has it, and as root only when root alone could change it.
Findings CheckSwitch();

// The file with the service's options and environment, as the service manager reads it: /etc/default/ravd, or
// /etc/sysconfig/ravd where the distribution has such files there.
const char* DefaultsPath();
Findings CheckDefaults();

inline constexpr const char* kUnit = "ravd.service";
// What the service manager tells of the unit: "ActiveState=active" and its like, a line each. Empty when none runs or
// it does not answer.
std::string AskForUnit();
// What that means.
Findings UnitFindings(std::string_view properties);

// The daemon's PID and lock file, whether they are its own. No lock is taken, which could be in the way of a start.
Findings CheckLeftovers();

// The ring buffer files of the running daemon, by its mappings: one that was cut short or removed under it.
Findings CheckMappedRings();

}  // namespace ravctl
