#pragma once

#include <string>

#include "ravctl/answer/finding.h"
#include "ravctl/registry/store_check.h"

namespace ravctl {

// What a registry file lacks. In a file that no start loads, damage harms nobody and is a note.
Findings FindingsOf(const std::string& path, const StoreCheck& check, bool isOfStart);

}  // namespace ravctl
