#pragma once

#include <string>
#include <string_view>

// Pure text functions of the registry handle. They may throw std::bad_alloc.

// Takes the first component off a key path. The first backslash ends it, and only when there is none the first slash;
// the separator is gone afterwards, and so is the whole path when there was none.
//   "A/B\C" => "A/B", left "C"        "A/B" => "A", left "B"        "A\" => "A", left ""
std::string_view TakePathComponent(std::string_view& path);

// Replaces %NAME% by the environment variable NAME (nothing when it is unset) and %% by %. A % without another one
// behind it is dropped.
//   "%HOME%/x%%y%z" => "/root/x%yz" when HOME is /root
std::string ExpandEnvironment(std::string_view text);
