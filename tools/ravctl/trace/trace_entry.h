#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

namespace ravctl {

inline constexpr std::string_view kEndMarker = "## TRACE-END ##\n";
inline constexpr size_t kTimeLength = 23;      // "2024-05-06 10:11:12.345"
inline constexpr size_t kFillerLength = 1024;  // bytes of a filler line with its end of line

// One entry of a trace. All parts are views into the file's content.
struct TraceEntry {
  std::string_view whole;  // with the entry header and the end of the last line; a text may hold lines of its own
  std::string_view time;   // "2024-05-06 10:11:12.345"
  std::string_view thread;
  std::optional<uint64_t> memoryKb;  // when the memory column was on
  std::string_view tag;
  std::string_view text;  // without the last end of line
  // The module or routine that the text names at its front, "Heartbeat", and the text behind the name; no name and the
  // whole text where it names none. Traces of modules bear the daemon's tag.
  std::string_view source;
  std::string_view message;
};

// Whether an entry starts here: a time and a thread in brackets.
inline bool StartsEntry(std::string_view line) {
  return line.size() > 35 && line[4] == '-' && line[7] == '-' && line[10] == ' ' && line[13] == ':' &&
         line[16] == ':' && line[19] == '.' && line[23] == ' ' && line[24] == '[' && line[33] == ']' && line[34] == ' ';
}

// Takes an entry apart; whole must start one (StartsEntry).
TraceEntry ParseEntry(std::string_view whole);

// What an entry tells of, by the words that those who trace use: ERROR or FAILED, WARNING.
enum class Gravity { kPlain, kWarning, kError };
Gravity GravityOf(std::string_view text);

// Whether the line, with its end, is one with which a new ring buffer is filled.
bool IsFiller(std::string_view line);

// Milliseconds, comparable with one another; 0 for a time that is none.
int64_t TimeValue(std::string_view time);

// Calls visit(whole) for every complete entry of the text in order, until it returns false. What stands before the
// first start of an entry, zeros, filler and a last line without its end are passed over. Nothing is allocated.
template <typename Visit>
void ForEachEntry(std::string_view text, Visit visit) {
  const char* at = text.data();
  const char* const end = at + text.size();
  const char* start = nullptr;  // of the entry at hand
  while (at < end) {
    const char* line = at;
    while (line < end && *line == '\0')
      ++line;
    const auto* close = static_cast<const char*>(std::memchr(line, '\n', static_cast<size_t>(end - line)));
    if (close == nullptr) break;
    const std::string_view view(line, static_cast<size_t>(close + 1 - line));
    if (StartsEntry(view)) {
      if (start != nullptr && !visit(std::string_view(start, static_cast<size_t>(at - start)))) return;
      start = view.size() == kFillerLength && IsFiller(view) ? nullptr : line;
    } else if (line != at) {  // behind a hole no line belongs to what was before it
      if (start != nullptr && !visit(std::string_view(start, static_cast<size_t>(at - start)))) return;
      start = nullptr;
    }
    at = close + 1;
  }
  if (start != nullptr) visit(std::string_view(start, static_cast<size_t>(at - start)));
}

}  // namespace ravctl
