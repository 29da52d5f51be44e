#include "platform/stdio_file.h"

#include <string_view>

#include "platform/descriptor_io.h"
#include "trace/debug.h"

namespace {

void AppendLines(std::vector<std::string>& lines, std::string_view text) {
  while (!text.empty()) {
    const size_t length = text.find('\n');
    lines.emplace_back(text.substr(0, length));
    if (length == std::string_view::npos) return;
    text.remove_prefix(length + 1);
  }
}

}  // namespace

bool CStdioFile::ReadFile(std::vector<std::string>& lines, const std::string& path) {
  std::string text;
  if (!OpenAndReadToEnd(path.c_str(), text)) {
    TRACE(1, "\nCStdioFile::ReadFile   : Cannot read file \"%s\"!\n", path.c_str());
    return false;
  }
  AppendLines(lines, text);
  return true;
}

bool CStdioFile::GetLineFromFile(std::string& line, const std::string& path, uint8_t index) {
  std::vector<std::string> lines;
  if (!ReadFile(lines, path)) {
    TRACE(1, "\nCStdioFile::GetLineFromFile  : Cannot read file \"%s\"!\n", path.c_str());
    return false;
  }
  if (index >= lines.size()) {
    TRACE(
        1,
        "\nCStdioFile::GetLineFromFile  : File has %d lines. Requested line index: %d does not exist (index is 0 based).\n",
        static_cast<int>(lines.size()), index);
    return false;
  }
  line = lines[index];
  return true;
}
