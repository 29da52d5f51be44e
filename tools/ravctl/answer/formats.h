#pragma once

#include <string>

#include "ravctl/answer/json_name.h"

namespace ravctl {

// How amounts are shown in a cell.

// Bytes: "1.5K"
std::string SizeText(const Json& bytes);
// Bytes per second: "1.5K/s"
std::string RateText(const Json& bytesPerSecond);

}  // namespace ravctl
