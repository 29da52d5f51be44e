#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// Small steps through the texts of /proc and /sys. Pure; nothing is thrown.

// The next word, which is taken away with the blanks in front of it: "  a b" => "a", and " b" is left. "" at the end.
std::string_view NextWord(std::string_view& text);
// The rest of the line, which is taken away with its newline.
std::string_view NextLine(std::string_view& text);
// "12" => 12; nothing for anything else, "-1", "12x" and "" included.
std::optional<uint64_t> ToNumber(std::string_view text);
