#include "ravctl/trace/trace_entry.h"

#include <algorithm>
#include <charconv>

namespace ravctl {

namespace {

constexpr size_t kThreadStart = 25;
constexpr size_t kThreadLength = 8;
constexpr size_t kBehindThread = 35;
constexpr size_t kTagColumns = 13;
constexpr std::string_view kMemoryEnd = " KB !";

// Takes "   10244 KB !" off the front when it stands there.
std::optional<uint64_t> TakeMemory(std::string_view& rest) {
  const size_t digits = std::min(rest.find_first_not_of(' '), rest.size());
  uint64_t value = 0;
  const auto result = std::from_chars(rest.data() + digits, rest.data() + rest.size(), value);
  if (result.ec != std::errc()) return std::nullopt;
  const auto length = static_cast<size_t>(result.ptr - rest.data());
  if (!rest.substr(length).starts_with(kMemoryEnd)) return std::nullopt;
  rest.remove_prefix(length + kMemoryEnd.size());
  return value;
}

// A tag fills 13 columns, or more when it is longer, and ends with a blank.
std::string_view TakeTag(std::string_view& rest) {
  const size_t line = std::min(rest.find('\n'), rest.size());
  const size_t end = std::min(rest.find(' ', std::min(kTagColumns, rest.size())), line);
  std::string_view tag = rest.substr(0, end);
  rest.remove_prefix(std::min(end + (end < line ? 1 : 0), rest.size()));
  while (tag.ends_with(' '))
    tag.remove_suffix(1);
  return tag;
}

// "Heartbeat           : beat 1": a name without blanks, filled up to 20 columns, and a colon. The daemon host's own
// name, "RAVD-MAIN: Load", is not filled up.
void SplitText(TraceEntry& entry) {
  constexpr size_t kNameColumns = 20;
  constexpr std::string_view kHost = "-MAIN";
  const std::string_view text = entry.text;
  std::string_view name = text.substr(0, text.find_first_of(" \n"));
  const size_t colon = name.ends_with(':') ? name.size() - 1 : text.find_first_not_of(' ', name.size());
  entry.message = text;
  if (colon >= text.size() || text[colon] != ':') return;
  name = name.substr(0, colon);
  const bool isHost = name.find(kHost) != std::string_view::npos;
  const bool isName = !name.empty() && (colon >= kNameColumns || isHost) && std::ranges::all_of(name, [](char letter) {
    return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') || (letter >= '0' && letter <= '9') ||
           std::string_view("_:.-~<>").find(letter) != std::string_view::npos;
  });
  if (!isName) return;
  entry.source = name;
  entry.message = text.substr(std::min(colon + (text.substr(colon + 1).starts_with(' ') ? 2 : 1), text.size()));
}

}  // namespace

TraceEntry ParseEntry(std::string_view whole) {
  TraceEntry entry;
  entry.whole = whole;
  entry.time = whole.substr(0, kTimeLength);
  entry.thread = whole.substr(kThreadStart, kThreadLength);
  std::string_view rest = whole.substr(kBehindThread);
  entry.memoryKb = TakeMemory(rest);
  entry.tag = TakeTag(rest);
  if (rest.ends_with('\n')) rest.remove_suffix(1);
  entry.text = rest;
  SplitText(entry);
  return entry;
}

Gravity GravityOf(std::string_view text) {
  const auto has = [text](std::string_view word) { return text.find(word) != std::string_view::npos; };
  if (has("ERROR") || has("FAILED")) return Gravity::kError;
  return has("WARNING") ? Gravity::kWarning : Gravity::kPlain;
}

bool IsFiller(std::string_view line) {
  // Most lines show at their end that they are none; the entry header takes the first third at most.
  constexpr size_t kMaxHeader = 128;
  return line.size() == kFillerLength && line.ends_with('\n') &&
         line.find_first_not_of('_', kMaxHeader) == kFillerLength - 1;
}

int64_t TimeValue(std::string_view time) {
  const auto number = [time](size_t at, size_t length) {
    int64_t value = 0;
    std::from_chars(time.data() + at, time.data() + at + length, value);
    return value;
  };
  if (time.size() < kTimeLength) return 0;
  const int64_t day =
      (number(0, 4) * 12 + number(5, 2)) * 31 + number(8, 2);  // longer than a real month: still ordered
  return ((day * 24 + number(11, 2)) * 60 + number(14, 2)) * 60000 + number(17, 2) * 1000 + number(20, 3);
}

}  // namespace ravctl
