#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ravctl {

// What the terminal can show.
enum class GraphStyle { kBlocks, kAscii };

// kBlocks where the locale writes UTF-8.
GraphStyle StyleOfLocale();

// A bar of each value, drawn in so many lines, the top one first. Every value takes one column. A value of top fills
// its bar, more is cut; one above 0 shows at least the lowest step, and so does 0 as a base line; a negative one (not
// measured) stays blank.
//   {0, 5, 10} of 10 in one line => "▁▄█"
std::vector<std::string> DrawBars(const std::vector<double>& values, double top, size_t lines, GraphStyle style);

// The next round number at or above the value, of those a person reads at a glance: 1, 2 and 5 with zeros, in units of
// 1024 where the value is that large. At least 1024.
double RoundedTop(double bytes);

}  // namespace ravctl
