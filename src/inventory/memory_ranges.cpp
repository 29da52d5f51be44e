#include "inventory/memory_ranges.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "platform/critical_section.h"
#include "platform/never_destroyed.h"
#include "platform/stdio_file.h"

namespace {

constexpr const char* kIoMemory = "/proc/iomem";

constinit CCriticalSection s_Lock;  // guards the filling of the lines, which stay as they are from then on
constinit NeverDestroyed<std::vector<std::string>> s_Lines;

// Null while the file cannot be read or is empty.
const std::vector<std::string>* GetLines() {
  const CCriticalSectionLock lock(s_Lock);
  if (s_Lines.object.empty()) CStdioFile::ReadFile(s_Lines.object, kIoMemory);
  return s_Lines.object.empty() ? nullptr : &s_Lines.object;
}

}  // namespace

bool FindMemoryEnd(std::span<const std::string> lines, unsigned long long start, unsigned long long& end) {
  char text[20] = {};
  std::snprintf(text, sizeof text, "%llx", start);
  const auto line =
      std::ranges::find_if(lines, [&text](const std::string& each) { return each.find(text) != std::string::npos; });
  unsigned long long found = 0;
  if (line == lines.end() || std::sscanf(line->c_str(), "%*x-%llx", &found) != 1) return false;
  end = found;
  return true;
}

bool GetMemoryResourceEndAddress(unsigned long long start, unsigned long long& end) {
  const std::vector<std::string>* const lines = GetLines();
  return lines != nullptr && FindMemoryEnd(*lines, start, end);
}
