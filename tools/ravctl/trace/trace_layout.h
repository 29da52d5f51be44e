#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

namespace ravctl {

// In the line with which each cycle of a log file begins.
inline constexpr std::string_view kWrapWords = "------ WRAP ----- Cycle=";

enum class TraceKind { kRingBuffer, kLogFile };

// Where the entries of a trace file stand, in the order in which they were written. Pure: works on the content alone,
// whatever was cut off it, front or end. Views point into that content.
struct TraceLayout {
  TraceKind kind = TraceKind::kLogFile;
  std::string_view header;              // the block that tells how the application was started; empty when none
  bool hasHeaderEnd = false;            // "# End of header." stands
  std::string_view beginLine;           // of a ring buffer, with its end; empty when it is missing
  size_t wrapOffset = 0;                // where writing goes on after a wrap
  std::optional<size_t> marker;         // where the newest entry of a ring buffer ends
  bool hasWrapped = false;              // older entries stand behind newer ones
  bool isGuessed = false;               // the newest entry was found by the times, for want of a marker
  std::vector<std::string_view> parts;  // hand each to ForEachEntry, in this order
};

TraceLayout FindLayout(std::string_view content);

// The end marker that is in force, at or behind from and at the start of a line; text of an entry that looks like one
// is told apart by the times around it. npos when there is none.
size_t FindEndMarker(std::string_view content, size_t from);

// The line "### Begin of RingBuffer. ###" with its entry header and its end; empty when it is not there.
std::string_view FindBeginLine(std::string_view content);

}  // namespace ravctl
