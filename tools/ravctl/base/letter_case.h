#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace ravctl {

// Of the letters of ASCII, whatever the locale.
inline char Lower(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

inline std::string Lower(std::string_view text) {
  std::string lower(text);
  std::ranges::transform(lower, lower.begin(), [](char letter) { return Lower(letter); });
  return lower;
}

}  // namespace ravctl
