#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

// Reading and writing of open descriptors: an interrupted call is repeated, a short one continued. Nothing here traces
// or keeps state; any thread may call it. On failure errno tells why.

// At most size bytes from the descriptor's position. Result: how many, 0 at the end of the file, -1 on failure.
ssize_t ReadSome(int fd, char* buffer, size_t size);

// Appends everything from the descriptor's position to the end of the file. What was read before a failure stays in
// content.
bool ReadToEnd(int fd, std::string& content);

// Opens a file, whatever it is, and appends its content. False when it cannot be opened; what was read before a later
// failure stays in content.
bool OpenAndReadToEnd(const char* path, std::string& content);

// At the given offset of the file, whatever the descriptor's position. After a failure a part may have been written.
bool WriteAllAt(int fd, std::string_view data, off_t offset);
