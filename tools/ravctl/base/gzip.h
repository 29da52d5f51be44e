#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace ravctl {

// Data packed as RFC 1952, with the compression library itself rather than an archive reader, which drops the last
// block of a cut file.

bool IsGzip(std::string_view head);

// Hands out what is unpacked, of joined files one after another, until there is no more, or take returns false. next
// gives the packed pieces; an empty one is the end. Null, or what is wrong; what is good in front of that was handed
// out. Throws std::bad_alloc.
const char* UnpackGzip(const std::function<std::string_view()>& next,
                       const std::function<bool(std::string_view)>& take);

std::string PackGzip(std::string_view content);

}  // namespace ravctl
