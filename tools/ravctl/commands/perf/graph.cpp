#include "ravctl/commands/perf/graph.h"

#include <langinfo.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>

namespace ravctl {

namespace {

constexpr auto kBlocks = std::to_array<std::string_view>({" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"});
constexpr auto kAscii = std::to_array<std::string_view>({" ", ".", ":", "|", "#"});

template <size_t N>
std::vector<std::string> Draw(const std::vector<double>& values, double top, size_t lines,
                              const std::array<std::string_view, N>& steps) {
  constexpr size_t kStepsALine = N - 1;
  std::vector<std::string> drawn(lines);
  for (const double value : values) {
    const double share = top > 0.0 ? std::clamp(value / top, 0.0, 1.0) : 0.0;
    const auto height = static_cast<size_t>(std::lround(share * static_cast<double>(lines * kStepsALine)));
    const size_t filled = value < 0.0 ? 0 : std::max<size_t>(height, 1);
    for (size_t line = 0; line < lines; ++line) {
      const size_t below = (lines - 1 - line) * kStepsALine;
      drawn[line] += steps[filled > below ? std::min(filled - below, kStepsALine) : 0];
    }
  }
  return drawn;
}

}  // namespace

GraphStyle StyleOfLocale() {
  return std::string_view(::nl_langinfo(CODESET)) == "UTF-8" ? GraphStyle::kBlocks : GraphStyle::kAscii;
}

std::vector<std::string> DrawBars(const std::vector<double>& values, double top, size_t lines, GraphStyle style) {
  return style == GraphStyle::kBlocks ? Draw(values, top, lines, kBlocks) : Draw(values, top, lines, kAscii);
}

double RoundedTop(double bytes) {
  double unit = 1024.0;
  while (bytes > 1000.0 * unit)
    unit *= 1024.0;
  for (double decade = unit;; decade *= 10.0) {
    for (const double step : {1.0, 2.0, 5.0}) {
      if (bytes <= decade * step) return decade * step;
    }
  }
}

}  // namespace ravctl
