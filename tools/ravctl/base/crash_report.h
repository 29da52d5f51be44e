#pragma once

#include <string>
#include <string_view>

namespace ravctl {

// Where a child process crashed: its last act is to write to a descriptor what its parent makes the place of.

// In the child: from now on a signal that tells of a fault (SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT) writes a report
// before it ends the process. A thread that has exhausted its stack does so only when it is the calling one.
void ReportCrashesTo(int fd);

// A crash begins in a report with this line.
inline constexpr std::string_view kCrashMark = "@crash\n";

// What follows the mark => "heartbeat.so at 0x1139", the place counted from the start of the file, as addr2line wants
// it; where that is code of the system, as in a function that was called, with ", called from libx.so at 0x1200". Empty
// when it does not tell.
std::string PlaceOfCrash(std::string_view report);

}  // namespace ravctl
