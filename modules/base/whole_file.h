#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>

// Small files in one piece. Any thread; nothing is thrown but std::bad_alloc.

// What the file holds, cut at that many bytes; nothing when it cannot be opened or read. Files of /proc and /sys, which
// tell no size, included. Anything but a regular file is not opened for waiting.
std::optional<std::string> ReadWhole(const std::string& path, size_t limit = size_t{1} << 20);

// The first line of a file without the white space at its end; "" when there is none.
std::string ReadLine(const std::string& path);

// Puts the text in the place of the file by a rename, so that a reader finds the old text or the new one. Not brought
// to the disk: for files that are made anew after a crash. False, with errno, when that failed; nothing is left then.
bool ReplaceText(const std::string& path, const std::string& text, mode_t mode);
