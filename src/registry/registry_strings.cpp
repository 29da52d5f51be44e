#include "registry/registry_strings.h"

#include <cstdlib>

std::string_view TakePathComponent(std::string_view& path) {
  size_t end = path.find('\\');
  if (end == std::string_view::npos) end = path.find('/');
  const std::string_view component = path.substr(0, end);
  path.remove_prefix(end == std::string_view::npos ? path.size() : end + 1);
  return component;
}

std::string ExpandEnvironment(std::string_view text) {
  std::string expanded;
  while (!text.empty()) {
    const size_t begin = text.find('%');
    expanded.append(text.substr(0, begin));
    if (begin == std::string_view::npos) break;
    text.remove_prefix(begin + 1);
    const size_t end = text.find('%');
    if (end == std::string_view::npos) continue;
    if (end == 0) {
      expanded.push_back('%');
    } else if (const char* value = std::getenv(std::string(text.substr(0, end)).c_str()); value != nullptr) {
      expanded.append(value);
    }
    text.remove_prefix(end + 1);
  }
  return expanded;
}
