#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Lends a module under test the trace object that it expects of the executable, and keeps what it writes. Any thread.

// Tracing on at this level; 0 switches it off.
void SetTraceLevel(uint32_t level);

// The messages so far, without their leading newlines; forgets them.
std::vector<std::string> TakeTrace();
