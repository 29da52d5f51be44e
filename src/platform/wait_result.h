#pragma once

#include <cstdint>

// What the Wait operations of CEvent and CSemaphore return, and their time-out without limit. The numbers are part of
// the interface: the time-out is neither the system's ETIMEDOUT nor another system's wait code.

inline constexpr int kWaitDone = 0;                   // signalled, or one taken
inline constexpr int kWaitTimedOut = 102;             // not within the time
inline constexpr int kWaitFailed = -1;                // there is nothing to wait for, or the system refused
inline constexpr uint32_t kWaitForever = 0xFFFFFFFF;  // milliseconds: no limit
