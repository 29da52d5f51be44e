#include "ravctl/base/text_diff.h"

#include <algorithm>
#include <span>
#include <vector>

namespace ravctl {

namespace {

constexpr size_t kContext = 3;

using Lines = std::vector<std::string_view>;

// Each with its newline; the last one may have none.
Lines SplitLines(std::string_view text) {
  Lines lines;
  while (!text.empty()) {
    const size_t newline = text.find('\n');
    lines.push_back(text.substr(0, newline == std::string_view::npos ? newline : newline + 1));
    text.remove_prefix(lines.back().size());
  }
  return lines;
}

// "12,4"; a part without lines is named by the line before it.
std::string RangeText(size_t begin, size_t count) {
  const size_t first = count == 0 ? begin : begin + 1;
  return std::to_string(first) + (count == 1 ? "" : "," + std::to_string(count));
}

void AddLines(std::string& diff, char mark, std::span<const std::string_view> lines) {
  for (const std::string_view line : lines) {
    diff += mark;
    diff += line;
    if (!line.ends_with('\n')) diff += "\n\\ No newline at end of file\n";
  }
}

size_t EqualAtBegin(const Lines& one, const Lines& other) {
  return static_cast<size_t>(std::ranges::mismatch(one, other).in1 - one.begin());
}

size_t EqualAtEnd(const Lines& one, const Lines& other, size_t limit) {
  size_t count = 0;
  while (count < limit && one[one.size() - 1 - count] == other[other.size() - 1 - count])
    ++count;
  return count;
}

}  // namespace

std::string UnifiedDiff(std::string_view oldName, std::string_view newName, std::string_view oldText,
                        std::string_view newText) {
  if (oldText == newText) return "";
  const Lines before = SplitLines(oldText);
  const Lines after = SplitLines(newText);
  const size_t head = EqualAtBegin(before, after);
  const size_t tail = EqualAtEnd(before, after, std::min(before.size(), after.size()) - head);
  const size_t begin = head - std::min(head, kContext);
  const size_t behind = std::min(tail, kContext);
  const size_t oldCount = before.size() - tail + behind - begin;
  const size_t newCount = after.size() - tail + behind - begin;

  std::string diff = "--- " + std::string(oldName) + "\n+++ " + std::string(newName) + "\n@@ -" +
                     RangeText(begin, oldCount) + " +" + RangeText(begin, newCount) + " @@\n";
  const std::span<const std::string_view> old(before);
  AddLines(diff, ' ', old.subspan(begin, head - begin));
  AddLines(diff, '-', old.subspan(head, before.size() - tail - head));
  AddLines(diff, '+', std::span(after).subspan(head, after.size() - tail - head));
  AddLines(diff, ' ', old.subspan(before.size() - tail, behind));
  return diff;
}

}  // namespace ravctl
