#include "ravctl/line/help_text.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>

#include "ravctl/answer/stream_table.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace {

constexpr size_t kUsualWidth = 100;
constexpr size_t kNarrowest = 20;  // of what stands in one column
constexpr size_t kIndent = 2;      // of options, commands and the command lines of examples
constexpr std::string_view kExample = "  ravctl ";

// Where the line goes on: that of an option or a command below its meaning.
size_t Continuation(std::string_view line, size_t meanings) {
  const size_t start = std::min(line.find_first_not_of(' '), line.size());
  const bool hasMeaning = start == kIndent && line.size() > meanings && line[meanings - 1] == ' ';
  return hasMeaning ? meanings : start;
}

std::string WrappedLine(std::string_view line, size_t meanings, size_t width) {
  if (DisplayWidth(line) <= width || line.starts_with(kExample)) return std::string(line);
  const size_t indent = Continuation(line, meanings);
  width = std::max(width, indent + kNarrowest);
  std::string text(line.substr(0, indent));
  size_t used = indent;
  for (const std::string& word : SplitList(line.substr(indent), ' ')) {
    const size_t size = DisplayWidth(word);
    const bool isFirst = used == indent;
    if (!isFirst && used + 1 + size > width) {
      text += '\n' + std::string(indent, ' ');
      used = indent;
    } else if (!isFirst) {
      text += ' ';
      ++used;
    }
    text += word;
    used += size;
  }
  return text;
}

}  // namespace

size_t HelpWidth() {
  const char* const columns = std::getenv("COLUMNS");
  const std::string_view told = columns == nullptr ? "" : columns;
  size_t width = 0;
  if (std::from_chars(told.data(), told.data() + told.size(), width).ec == std::errc() && width > 0) return width;
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return kUsualWidth;
}

std::string Wrapped(std::string_view help, size_t meanings, size_t width) {
  std::string text;
  while (!help.empty()) {
    const size_t end = std::min(help.find('\n'), help.size());
    text += WrappedLine(help.substr(0, end), meanings, width) + (end < help.size() ? "\n" : "");
    help.remove_prefix(std::min(end + 1, help.size()));
  }
  return text;
}

}  // namespace ravctl
