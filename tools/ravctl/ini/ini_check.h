#pragma once

#include <string>
#include <string_view>

#include "ravctl/answer/finding.h"

namespace ravctl {

// Bad: what reaches no reader. Notes: what may surprise. None for a sound file. The kinds are those of ini_scan.h.
Findings CheckIni(const std::string& path, std::string_view content);

}  // namespace ravctl
