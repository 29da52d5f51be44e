#pragma once

#include <cstdint>
#include <string>

namespace ravctl {

// Local time throughout, as traces and file listings have it.

// "2026-11-24 17:05:33.123", now.
std::string LocalTimeNow();
// Seconds since 1970 => "2026-11-24 17:05:33"; empty when there is no such time.
std::string LocalTimeText(int64_t seconds);
// The same in the form of strftime.
std::string LocalTimeText(int64_t seconds, const char* form);

}  // namespace ravctl
