#pragma once

#include <string>

// Opens, reads and closes a file of /proc, so that each reading sees what lies at the path now. False with errno set
// when it cannot be opened; one that opens but cannot be read is empty.
bool ReadProcFile(const char* path, std::string& text);
