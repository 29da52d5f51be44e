#include "support/trace_capture.h"

#include <fstream>

#include "trace/debug.h"

namespace {

constexpr const char* kDirectory = "/var/log/pelrix";
constexpr const char* kLogFile = "/var/log/pelrix/log.test";
constexpr const char* kTag = " !test          ";  // where the entry header ends

std::vector<std::string> ReadTexts() {
  std::ifstream file(kLogFile);
  std::vector<std::string> texts;
  for (std::string line; std::getline(file, line);) {
    const size_t tag = line.find(kTag);
    texts.push_back(tag == std::string::npos ? line : line.substr(tag + std::char_traits<char>::length(kTag)));
  }
  return texts;
}

}  // namespace

TraceCapture::TraceCapture(unsigned int level) {
  std::filesystem::create_directories(kDirectory);
  ::setenv("QN_LOG_FILE_MAX_SIZE", "1000000000", 1);
  EXPECT_TRUE(Debug.Init("test"));
  Debug.SetTarget(CDebug::kTargetLogFile);
  Debug.m_TraceLevelSaved = level;
  Debug.ForceMaxDebug(true);
  Clear();
}

TraceCapture::~TraceCapture() {
  Debug.ForceMaxDebug(false);
  Debug.SetTarget(CDebug::kTargetNone);
}

std::vector<std::string> TraceCapture::Lines() const {
  std::vector<std::string> texts = ReadTexts();
  texts.erase(texts.begin(), texts.begin() + static_cast<std::ptrdiff_t>(std::min(m_First, texts.size())));
  return texts;
}

std::string TraceCapture::Text() const {
  std::string text;
  for (const std::string& line : Lines())
    text += line + "\n";
  return text;
}

std::string TraceCapture::Missing(const std::string& lines) const {
  const std::vector<std::string> traced = Lines();
  std::istringstream wanted(lines);
  std::string missing;
  for (std::string line; std::getline(wanted, line);) {
    if (std::find(traced.begin(), traced.end(), line) == traced.end()) missing += line + "\n";
  }
  return missing;
}

bool TraceCapture::Has(const std::string& line) const {
  return Missing(line).empty();
}

int TraceCapture::Count(const std::string& part) const {
  const std::vector<std::string> lines = Lines();
  return static_cast<int>(std::count_if(
      lines.begin(), lines.end(), [&part](const std::string& line) { return line.find(part) != std::string::npos; }));
}

void TraceCapture::Clear() {
  m_First = ReadTexts().size();
}

void RunTraced(const FixtureRoot& root, unsigned int level, unsigned int mounts,
               const std::function<void(TraceCapture& trace)>& body) {
  root.Run(mounts, [&] {
    TraceCapture trace(level);
    body(trace);
  });
}
