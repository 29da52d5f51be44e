#pragma once

#include <cstddef>
#include <ctime>
#include <string_view>

// Copies into a shared mapping of a file that somebody else may cut short meanwhile. A store into a page that the file
// has lost raises SIGBUS, which would end the process; here it makes the copy fail. Costs no system call. Never traces.
//
// Any thread may copy, each into a mapping that nobody unmaps meanwhile. Only a fault of the copying thread inside the
// range that it copies to is caught; every other SIGBUS goes where it went before. The kernel ends the process when the
// faulting thread blocks SIGBUS: see UnblockBusErrors. A library that puts a handler of its own in the place of this
// one is beyond help.
namespace mapped_copy {

// Needed once before the first copy; every further call does nothing. Takes over the disposition of SIGBUS and passes
// on what is not its own.
void CatchLostPages();

// For the next operation alone: the second in which the thread last took SIGBUS out of its mask, and how it does so.
extern constinit thread_local time_t unblockedIn;
void UnblockNow(time_t second);

// To be called before a thread's copies, with the current second: takes SIGBUS out of the signals that the thread
// blocks, at the thread's first call and at the first one of every further second; the others cost a comparison. What
// is promised: a thread that blocked it before its first call is safe at once and stays so; one that blocks it between
// two copies of the same second is safe again from the next second on.
inline void UnblockBusErrors(time_t second) {
  if (second != unblockedIn) UnblockNow(second);
}

// Puts both texts one behind the other. False when a page is gone; a part may have been copied.
bool Put(char* to, std::string_view first, std::string_view second);
bool Fill(char* to, char character, size_t count);

}  // namespace mapped_copy
