#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ravctl {

// The newest of the daemon's runs that the service kept.
struct LastCrash {
  std::string path;  // where its trace is
  // "crashed 2026-11-25 03:45:23 by SEGV (core-dump), in libx.so at 0x139 of its mapping" or, without a signal,
  // "ended 2026-11-25 03:45:23 with status 1 (exit-code)". May hold any character.
  std::string text;
};

// None when no run is kept. The library is named when the kernel wrote a line about the crash that can be read: in the
// journal of the minutes before, where the line may name any thread of the run, or at the end of /var/log/kern.log,
// where it has to be the process itself. A bundle brings the lines of the journal along. Throws CommandError when the
// trace directory cannot be looked into.
std::optional<LastCrash> FindLastCrash();

struct CrashLine {
  unsigned int thread = 0;
  std::string place;  // "libx.so at 0x139 of its mapping"
};

// A line of the kernel about a crash of the daemon, whatever stands before it; none for another line, and for one that
// names no file. x86 kernels write
//   ravd[4711]: segfault at 0 ip 00007f0000001139 sp 00007ffe00000000 error 4 in libx.so[7f0000001000+1000]
//   traps: ravd[4711] general protection fault ip:7f0000001139 sp:7ffe00000000 error:0 in libx.so[7f0000001000+1000]
// in which the mapping usually is that of the code; newer ones [139,7f0000001000+1000], with the offset in the file.
std::optional<CrashLine> ParseCrashLine(std::string_view line);

}  // namespace ravctl
