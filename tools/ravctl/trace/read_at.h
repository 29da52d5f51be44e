#pragma once

#include <sys/types.h>

#include <string>

#include "platform/unique_fd.h"

namespace ravctl {

// So many bytes from that offset on; fewer where the file ends, or cannot be read, before.
std::string ReadAt(const UniqueFd& file, off_t offset, size_t length);

}  // namespace ravctl
