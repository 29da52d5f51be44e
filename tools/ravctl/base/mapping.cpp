#include "ravctl/base/mapping.h"

#include <charconv>
#include <vector>

#include "ravctl/base/text.h"

namespace ravctl {

std::optional<uint64_t> ParseHex(std::string_view text) {
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, 16);
  return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

std::optional<Mapping> ParseMapping(const std::string& line) {
  const size_t slash = line.find('/');
  const std::vector<std::string> words = SplitList(line.substr(0, slash), ' ');
  if (slash == std::string::npos || words.size() < 3) return std::nullopt;
  const size_t dash = words[0].find('-');
  const auto begin = ParseHex(std::string_view(words[0]).substr(0, dash));
  const auto end = dash == std::string::npos ? std::nullopt : ParseHex(std::string_view(words[0]).substr(dash + 1));
  const auto offset = ParseHex(words[2]);
  if (!begin || !end || !offset) return std::nullopt;
  return Mapping{*begin, *end, *offset, line.substr(slash)};
}

}  // namespace ravctl
