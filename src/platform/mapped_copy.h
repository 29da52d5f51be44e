#pragma once

#include <cstddef>
#include <string_view>

// Copies into a shared mapping of a file that somebody else may cut short meanwhile. A store into a page that the file
// has lost raises SIGBUS, which would end the process; here it makes the copy fail. Costs no system call. Never traces.
//
// Any thread may copy, each into a mapping that nobody unmaps meanwhile. Only a fault of the copying thread inside the
// range that it copies to is caught; every other SIGBUS goes where it went before. A thread that blocks SIGBUS, or a
// library that puts a handler of its own in the place of this one, is beyond help.
namespace mapped_copy {

// Needed once before the first copy; every further call does nothing. Takes over the disposition of SIGBUS and passes
// on what is not its own.
void CatchLostPages();

// Puts both texts one behind the other. False when a page is gone; a part may have been copied.
bool Put(char* to, std::string_view first, std::string_view second);
bool Fill(char* to, char character, size_t count);

}  // namespace mapped_copy
