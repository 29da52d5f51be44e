#pragma once

#include <cstddef>
#include <string_view>

// Position of the first '[' or of the first occurrence of the key in the text, whichever comes first; npos when neither
// occurs. The key is not empty. A pure function that any thread may call. It passes over text at the speed of memory,
// and so spares a reader of INI files from looking at the lines that cannot matter.
size_t FindHeaderOrKey(std::string_view text, std::string_view key);
