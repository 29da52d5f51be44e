#include "ravctl/trace/trace_layout.h"

#include <algorithm>
#include <charconv>

#include "ravctl/trace/trace_entry.h"

namespace ravctl {

namespace {

constexpr std::string_view kBegin = "### Begin of RingBuffer. ###\n";
constexpr std::string_view kHeaderEnd = "# End of header.";
constexpr std::string_view kHeaderFirst = "Quennet Environment:";
constexpr std::string_view kCommandLine = " Command Line Options:";
constexpr std::string_view kArgument = "argv[";
constexpr std::string_view kWrapPosition = "CntInitEnd=";
constexpr size_t kHeaderSearch = size_t{1} << 20;  // a header is looked for in that much of the start
constexpr size_t kLongestWrapLine = 256;           // before and behind its first word

size_t LineStart(std::string_view content, size_t at) {
  const size_t before = at == 0 ? std::string_view::npos : content.rfind('\n', at - 1);
  return before == std::string_view::npos ? 0 : before + 1;
}

size_t OffsetOf(std::string_view content, std::string_view part) {
  return static_cast<size_t>(part.data() - content.data());
}

void FindHeader(std::string_view content, TraceLayout& layout) {
  std::optional<size_t> start;      // of the block
  std::optional<size_t> arguments;  // of the command line that stands right before it
  size_t end = 0;
  ForEachEntry(content.substr(0, kHeaderSearch), [&](std::string_view whole) {
    // The last line of the block has the end marker behind it, a line of its own.
    std::string_view text = ParseEntry(whole).text;
    text = text.substr(0, text.find('\n'));
    const size_t at = OffsetOf(content, whole);
    if (text == kHeaderFirst) {
      start = arguments.value_or(at);
    } else if (text.ends_with(kCommandLine)) {
      arguments = at;
    } else if (!text.starts_with(kArgument)) {
      arguments.reset();
    }
    if (start) end = at + whole.size();
    layout.hasHeaderEnd = start && text == kHeaderEnd;
    // In a ring buffer an end marker, which takes a line, ends the block even where its last lines had no room.
    return !layout.hasHeaderEnd && whole.find(kEndMarker) == std::string_view::npos;
  });
  if (!start) return;
  layout.header = content.substr(*start, end - *start);
  const size_t marker = layout.header.find(kEndMarker);
  if (marker != std::string_view::npos) layout.header = layout.header.substr(0, marker);
}

// The place where times go back the furthest, as a region's newest entries are followed by its oldest: the end of the
// newest and the start of the oldest.
struct Jump {
  size_t newestEnd = 0;
  size_t oldestStart = 0;
};

std::optional<Jump> FindJump(std::string_view content, size_t from) {
  std::optional<Jump> best;
  int64_t bestBack = 0;
  bool bestHasRemains = false;
  int64_t previous = 0;
  size_t previousLine = 0;  // where the first line of the entry before ends
  size_t previousEnd = 0;
  ForEachEntry(content.substr(from), [&](std::string_view whole) {
    const size_t at = OffsetOf(content, whole);
    const int64_t time = TimeValue(whole.substr(0, kTimeLength));
    // Lines behind the entry before may be what is left of an older one: the mark of the true place.
    const bool hasRemains = previousEnd > previousLine || (previousEnd != 0 && at != previousEnd);
    const int64_t back = previous - time;
    const bool isCandidate = previousEnd != 0 && (back > 0 || (back == 0 && hasRemains && !best));
    if (isCandidate &&
        (!best || (hasRemains && !bestHasRemains) || (hasRemains == bestHasRemains && back > bestBack))) {
      best = Jump{previousLine, at};
      bestBack = back;
      bestHasRemains = hasRemains;
    }
    previous = time;
    previousLine = at + whole.find('\n') + 1;
    previousEnd = at + whole.size();
    return true;
  });
  return best;
}

// What a new ring buffer was filled with and no entry has reached yet, behind from.
size_t FindFiller(std::string_view content, size_t from) {
  for (size_t at = (from + kFillerLength - 1) / kFillerLength * kFillerLength; at < content.size();
       at += kFillerLength) {
    if (IsFiller(content.substr(at, kFillerLength))) return at;
  }
  return content.size();
}

void FindRingBufferParts(std::string_view content, TraceLayout& layout) {
  const size_t from = layout.wrapOffset;
  const size_t marker = FindEndMarker(content, from);
  if (marker != std::string_view::npos) {
    layout.marker = marker;
    const std::string_view older = content.substr(marker + kEndMarker.size());
    ForEachEntry(older, [&layout](std::string_view) { return !(layout.hasWrapped = true); });
    if (layout.hasWrapped) layout.parts.push_back(older);
    layout.parts.push_back(content.substr(from, marker - from));
    return;
  }
  // The writer died between an entry and its marker, or within a wrap, or the end of the file is gone.
  layout.isGuessed = true;
  const size_t filler = FindFiller(content, from);
  if (filler < content.size()) {
    // Before the filler stands the newest entry, with the rest of a filler line behind it.
    const std::string_view remains = content.substr(0, filler).ends_with("_\n") ? "_" : "";
    size_t end = filler;
    if (!remains.empty()) {
      const size_t last = content.substr(0, filler - 1).find_last_of('\n');
      end = last != std::string_view::npos && last >= from ? last + 1 : filler;
    }
    layout.parts.push_back(content.substr(from, end - from));
    return;
  }
  const std::optional<Jump> jump = FindJump(content, from);
  layout.hasWrapped = jump.has_value();
  if (jump) layout.parts.push_back(content.substr(jump->oldestStart));
  layout.parts.push_back(content.substr(from, (jump ? jump->newestEnd : content.size()) - from));
}

// Where the line of a wrap says that it stands, when it does.
std::optional<size_t> FindWrapPosition(std::string_view content) {
  for (size_t at = content.find(kWrapWords); at != std::string_view::npos; at = content.find(kWrapWords, at + 1)) {
    const size_t near = at - std::min(at, kLongestWrapLine);
    const size_t start = near + LineStart(content.substr(near), at - near);
    const std::string_view line = content.substr(at, kLongestWrapLine);
    const size_t field = line.substr(0, line.find('\n')).find(kWrapPosition);
    if (field == std::string_view::npos) continue;
    size_t position = 0;
    std::from_chars(line.data() + field + kWrapPosition.size(), line.data() + line.size(), position);
    if (position == start) return position;
  }
  return std::nullopt;
}

void AddWithoutHeader(std::string_view content, std::string_view part, TraceLayout& layout) {
  const size_t header = layout.header.empty() ? part.size() : OffsetOf(content, layout.header);
  if (layout.header.empty() || header >= part.size()) {
    layout.parts.push_back(part);
    return;
  }
  layout.parts.push_back(part.substr(0, header));
  layout.parts.push_back(part.substr(std::min(header + layout.header.size(), part.size())));
}

void FindLogFileParts(std::string_view content, TraceLayout& layout) {
  const std::optional<size_t> wrap = FindWrapPosition(content);
  if (!wrap) {
    AddWithoutHeader(content, content, layout);
    return;
  }
  layout.wrapOffset = *wrap;
  AddWithoutHeader(content, content.substr(0, *wrap), layout);
  const std::optional<Jump> jump = FindJump(content, *wrap);
  layout.hasWrapped = true;
  layout.isGuessed = jump.has_value();
  if (jump) layout.parts.push_back(content.substr(jump->oldestStart));
  layout.parts.push_back(content.substr(*wrap, (jump ? jump->newestEnd : content.size()) - *wrap));
}

// The starts of entries around places that are asked for in rising order, each at the start of a line: however many
// places there are, the text is read twice at most.
class EntryStarts {
 public:
  EntryStarts(std::string_view content, size_t from) : m_Content(content), m_Line(from) {}

  // Of the last entry that starts before the place.
  size_t LastBefore(size_t at) {
    for (; m_Line < at; m_Line = NextLine(m_Line)) {
      if (StartsEntry(m_Content.substr(m_Line))) m_Before = m_Line;
    }
    return m_Before;
  }

  // Of the first entry, no filler, that starts there or behind and whose line is complete.
  size_t FirstFrom(size_t at) {
    if (m_Behind != 0 && m_Behind >= at) return m_Behind;
    for (; at < m_Content.size(); at = NextLine(at)) {
      const size_t line = std::min(m_Content.find_first_not_of('\0', at), m_Content.size());
      const std::string_view view = m_Content.substr(line, NextLine(line) - line);
      if (StartsEntry(view) && view.ends_with('\n') && !IsFiller(view)) return m_Behind = line;
    }
    return m_Behind = std::string_view::npos;
  }

 private:
  size_t NextLine(size_t at) const {
    const size_t close = m_Content.find('\n', at);
    return close == std::string_view::npos ? m_Content.size() : close + 1;
  }

  std::string_view m_Content;
  size_t m_Line;
  size_t m_Before = std::string_view::npos;
  size_t m_Behind = 0;  // 0: not looked for yet
};

// A file without its Begin line is still a ring buffer when something in it belongs to one.
bool LooksLikeRingBuffer(std::string_view content) {
  if (IsFiller(content.substr(0, kFillerLength)) || FindFiller(content, 0) < content.size()) return true;
  const size_t marker = content.find(kEndMarker);
  return marker != std::string_view::npos && LineStart(content, marker) == marker;
}

}  // namespace

std::string_view FindBeginLine(std::string_view content) {
  for (size_t at = content.find(kBegin); at != std::string_view::npos; at = content.find(kBegin, at + 1)) {
    const size_t start = LineStart(content, at);
    const std::string_view line = content.substr(start, at + kBegin.size() - start);
    if (StartsEntry(line)) return line;
    // The line before it is filler that the end marker of the header was written over.
    const size_t aligned = at / kFillerLength * kFillerLength;
    if (aligned >= start && StartsEntry(content.substr(aligned))) {
      return content.substr(aligned, at + kBegin.size() - aligned);
    }
  }
  return {};
}

size_t FindEndMarker(std::string_view content, size_t from) {
  EntryStarts starts(content, from);
  size_t last = std::string_view::npos;
  for (size_t at = content.find(kEndMarker, from); at != std::string_view::npos;
       at = content.find(kEndMarker, at + 1)) {
    if (at != from && content[at - 1] != '\n') continue;
    last = at;
    // The times of the entry before it and of the one behind it: behind the true one stand older entries or filler.
    const size_t before = starts.LastBefore(at);
    const size_t behind = starts.FirstFrom(at + kEndMarker.size());
    if (before == std::string_view::npos || behind == std::string_view::npos) return at;
    if (content.substr(behind, kTimeLength) <= content.substr(before, kTimeLength)) return at;
  }
  return last;
}

TraceLayout FindLayout(std::string_view content) {
  TraceLayout layout;
  layout.beginLine = FindBeginLine(content);
  FindHeader(content, layout);
  if (!layout.beginLine.empty()) {
    layout.kind = TraceKind::kRingBuffer;
    layout.wrapOffset = OffsetOf(content, layout.beginLine) + layout.beginLine.size();
    FindRingBufferParts(content, layout);
  } else if (LooksLikeRingBuffer(content)) {
    layout.kind = TraceKind::kRingBuffer;
    if (!layout.header.empty()) {
      // The end was cut off before the first entry, or within the header.
      layout.isGuessed = true;
      return layout;
    }
    FindRingBufferParts(content, layout);
  } else {
    FindLogFileParts(content, layout);
  }
  return layout;
}

}  // namespace ravctl
