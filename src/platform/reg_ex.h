#pragma once

#include <cstdint>
#include <string>

// Cuts substrings out of texts by POSIX extended regular expressions. Stateless, so any thread may call it.
class CRegEx {
 public:
  // The match number `occurrence` (from 1; 0 = number 256). Each search starts one character behind the start of the
  // match before it, so matches may overlap; "^" matches at the beginning of the text only. When there are fewer
  // matches, the last one counts; when there is none, result becomes empty and the call still succeeds.
  //   "[0-9]+", "a12b3", 1 => "12"      "[0-9]+", "a12b3", 2 => "2"      "[0-9]+", "a12b3", 0 => "3"
  // Callers should expect defined results for texts of up to 255 characters only. This implementation keeps positions
  // in full width, so that a longer text is searched to its end as well; a NUL is a character like any other.
  // A pattern that does not compile is traced at level 1 and gives false with result unchanged.
  static bool GetRegexFromString(std::string& result, const std::string& pattern, const std::string& text,
                                 uint8_t occurrence);
};
