#include "ravctl/base/times.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>

namespace ravctl {

std::string LocalTimeText(int64_t seconds, const char* form) {
  const auto value = static_cast<time_t>(seconds);
  tm local{};
  std::array<char, 64> text{};
  if (localtime_r(&value, &local) == nullptr) return "";
  return {text.data(), std::strftime(text.data(), text.size(), form, &local)};
}

std::string LocalTimeText(int64_t seconds) {
  return LocalTimeText(seconds, "%F %T");
}

std::string LocalTimeNow() {
  using namespace std::chrono;
  const auto ms = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  std::array<char, 8> rest{};
  std::snprintf(rest.data(), rest.size(), ".%03d", static_cast<int>(ms % 1000));
  return LocalTimeText(ms / 1000) + rest.data();
}

}  // namespace ravctl
