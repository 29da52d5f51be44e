#pragma once

#include <cstddef>
#include <string_view>

// Search in the text of INI files, at the speed of memory, so that a reader need not look at the lines that cannot
// matter. Pure functions that any thread may call. Results are positions in the text, npos when there is nothing.

// The first "[section]", or a '[' that is too close to the end to tell.
size_t FindHeaderOf(std::string_view text, std::string_view section);

// The first '[' or occurrence of the key, whichever comes first. The key is not empty.
size_t FindHeaderOrKey(std::string_view text, std::string_view key);
