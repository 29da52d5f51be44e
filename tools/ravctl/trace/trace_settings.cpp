#include "ravctl/trace/trace_settings.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "ravctl/base/error.h"
#include "ravctl/base/text.h"
#include "ravctl/daemon/process.h"
#include "trace/debug.h"
#include "trace/debug_trace_config.h"

namespace ravctl {

namespace {

constexpr const char* kGlobalFileName = "global_trace.ini";
constexpr const char* kGlobalSection = "GlobalDebugSettings";
constexpr const char* kDaemonApplication = "ravd";
constexpr const char* kDefaultDirectory = "/var/log/pelrix";
constexpr uint32_t kDefaultLogFileSize = 51200;
constexpr uint32_t kLargestFactor = 2;
constexpr uint32_t kNotGiven = 0xFFFFFFFF;

std::string PathInDirectory(const std::string& name) {
  return std::string(kTraceConfigDirectory) + "/" + name;
}

// The section's own name, or "EndOfFile" when that one is already refused.
bool HasSection(const std::string& name, const std::string& section) {
  CDebugTraceConfigFile file;
  return file.OpenSectionInIniFile(section.c_str(), name.c_str(), kTraceConfigDirectory);
}

std::string ReadText(const std::string& name) {
  std::string text;
  const UniqueFd file(::open(PathInDirectory(name).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file || !ReadToEnd(file.Get(), text)) return {};
  return text;
}

// Why the trace object passes over a file.
std::string ReasonAgainst(const std::string& name, const std::string& section) {
  const UniqueFd file(::open(PathInDirectory(name).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) return std::string("cannot be opened: ") + std::strerror(errno);
  const std::string text = ReadText(name);
  if (text.empty()) return "empty, or it cannot be read";
  const size_t close = text.rfind(']');
  const size_t open = close == std::string::npos ? close : text.rfind('[', close);
  const std::string last = open == std::string::npos ? "" : text.substr(open + 1, close - open - 1);
  if (::strcasecmp(last.c_str(), "EndOfFile") != 0) return "its last bracketed name is not [EndOfFile]";
  return "has no section [" + section + "]";
}

std::string Decimal(uint32_t value) {
  return std::to_string(value);
}

}  // namespace

TraceSettings::TraceSettings(std::string application) : m_Application(std::move(application)) {
  ReadEnvironment();
  ReadFiles();
  Compute();
}

void TraceSettings::ReadEnvironment() {
  std::string text;
  m_EnvironmentOf = "this command";
  if (m_Application == kDaemonApplication) {
    const std::optional<DaemonProcess> daemon = FindDaemon();
    const std::string path = daemon ? "/proc/" + std::to_string(daemon->pid) + "/environ" : "";
    const UniqueFd file(daemon ? ::open(path.c_str(), O_RDONLY | O_CLOEXEC) : -1);
    if (file && ReadToEnd(file.Get(), text)) m_EnvironmentOf = "process " + std::to_string(daemon->pid);
  }
  if (m_EnvironmentOf == "this command") {
    for (char** variable = environ; *variable != nullptr; ++variable)
      text += std::string(*variable) + '\0';
  }
  for (const std::string& variable : SplitList(text, '\0')) {
    const size_t equals = variable.find('=');
    if (equals != std::string::npos) m_Environment.push_back({variable.substr(0, equals), variable.substr(equals + 1)});
  }
}

void TraceSettings::ReadFiles() {
  DIR* stream = ::opendir(kTraceConfigDirectory);
  if (stream == nullptr) {
    if (errno == EACCES) throw SystemFailure("cannot look into", kTraceConfigDirectory, EACCES);
    return;
  }
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(stream)) {
    if (std::strstr(entry->d_name, ".ini") != nullptr) names.emplace_back(entry->d_name);
  }
  ::closedir(stream);
  std::ranges::sort(names,
                    [](const std::string& a, const std::string& b) { return std::strcoll(a.c_str(), b.c_str()) < 0; });
  m_IsDirectoryEmpty = names.empty();
  for (const std::string& name : names) {
    TraceConfigFile file{PathInDirectory(name), false, ""};
    const bool isGlobal = name == kGlobalFileName && HasSection(name, kGlobalSection);
    if (isGlobal) m_GlobalFile = name;
    if (!HasSection(name, m_Application)) {
      file.reason = ReasonAgainst(name, m_Application);
    } else if (!m_ApplicationFile.empty()) {
      file.reason = m_ApplicationFile + " comes first";
    } else {
      m_ApplicationFile = name;
      file.isUsed = true;
      file.reason = "section [" + m_Application + "]";
    }
    if (isGlobal) {
      file.reason = (file.isUsed ? file.reason + " and " : "") + "section [" + kGlobalSection + "]";
      file.isUsed = true;
    }
    m_Files.push_back(std::move(file));
  }
}

const std::string* TraceSettings::Find(const std::string& variable) const {
  const auto found = std::ranges::find(m_Environment, variable, &Variable::name);
  return found != m_Environment.end() ? &found->value : nullptr;
}

// The first variable that is set (decimal), else the key of the file, else the default.
uint32_t TraceSettings::Add(const std::string& name, const std::vector<std::string>& variables, const std::string& key,
                            uint32_t defaultValue) {
  for (const std::string& variable : variables) {
    const std::string* text = Find(variable);
    if (text == nullptr) continue;
    const auto value = static_cast<uint32_t>(std::strtol(text->c_str(), nullptr, 10));
    m_Settings.push_back({name, Decimal(value), "environment", variable, ""});
    if (Decimal(value) != *text) m_Settings.back().comment = "given as \"" + *text + "\"";
    return value;
  }
  const bool isGlobal = key == "DynamicUpdate";
  const std::string& fileName = isGlobal ? m_GlobalFile : m_ApplicationFile;
  CDebugTraceConfigFile file;
  uint32_t value = kNotGiven;
  if (!key.empty() && !fileName.empty() &&
      file.OpenSectionInIniFile(isGlobal ? kGlobalSection : m_Application.c_str(), fileName.c_str(),
                                kTraceConfigDirectory)) {
    file.ReadNumber(key.c_str(), value);
  }
  if (value != kNotGiven) {
    m_Settings.push_back({name, Decimal(value), "file", PathInDirectory(fileName) + ": " + key, ""});
    return value;
  }
  m_Settings.push_back({name, Decimal(defaultValue), "default", "", ""});
  return defaultValue;
}

void TraceSettings::Compute() {
  if (m_IsDirectoryEmpty) m_Environment.clear();  // it is not consulted either
  m_Directory = kDefaultDirectory;
  TraceSetting directory{"directory", m_Directory, "default", "", ""};
  CDebugTraceConfigFile file;
  std::array<char, 256> text{};
  if (const std::string* given = Find("QN_LOG_RINGBUF_DIR"); given != nullptr) {
    directory = {"directory", given->substr(0, text.size() - 1), "environment", "QN_LOG_RINGBUF_DIR", ""};
  } else if (!m_ApplicationFile.empty() &&
             file.OpenSectionInIniFile(m_Application.c_str(), m_ApplicationFile.c_str(), kTraceConfigDirectory) &&
             file.ReadText("RingBufferDirectory", text.data(), text.size()) && text[0] != '\0') {
    directory = {"directory", text.data(), "file", PathInDirectory(m_ApplicationFile) + ": RingBufferDirectory", ""};
  }
  m_Directory = directory.value;

  std::array<char, 48> weightName{"QN_LOG_RINGBUF_WEIGHT"};
  CDebug::BuildAppVarName(weightName.data(), weightName.size(), m_Application.c_str());
  m_Level = Add("level", {"QN_LOG_DEBUG_LEVEL"}, "FileDebugLevel", 0);
  m_IsLevelFromEnvironment = m_Settings.back().source == "environment";
  m_Settings.push_back(directory);
  const uint32_t factor = Add("ring_buffer_factor", {"TraceFileLimit"}, "RingBufferSizeFactor", 0);
  if (factor > kLargestFactor) m_Settings.back().comment = "counts as 2";
  std::vector<std::string> weights = {"QN_LOG_RINGBUF_WEIGHT"};
  if (m_Level != 0) weights.insert(weights.begin(), weightName.data());
  const uint32_t weight = Add("ring_buffer_weight", weights, "RingBufferSizeWeight", 0);
  Add("log_file_max_size", {"QN_LOG_FILE_MAX_SIZE"}, "", kDefaultLogFileSize);
  Add("no_header", {"QN_LOG_NOHDR_TOSDTERR"}, "NoHeaderToStderr", m_IsDirectoryEmpty ? 0 : 1);
  const uint32_t memory = Add("memory_column", {}, "MemoryTracesFlag", m_IsDirectoryEmpty ? 0 : 1);
  m_Settings.back().comment = memory != 0 ? "on" : "off";
  Add("trace_flags", {}, "TraceFlags", 0);
  m_DynamicUpdate = Add("dynamic_update", {"QN_LOG_DYNAMIC_UPDATE"}, "DynamicUpdate", 0);
  m_Settings.back().comment = m_DynamicUpdate == 0 ? "files are read at start alone" : "seconds between two looks";

  const uint64_t page = static_cast<uint64_t>(std::max(::sysconf(_SC_PAGESIZE), 1L));
  const uint64_t size = page * uint64_t{std::min(factor, kLargestFactor) * weight} * 256;
  m_IsTracing = m_Level != 0 && size != 0;
  m_Settings.push_back({"ring_buffer_size", std::to_string(size), "computed", "page size x factor x weight x 256",
                        size == 0 ? "nothing is traced without a ring buffer" : HumanSize(size)});
  if (m_Level != 0 && !m_IsTracing) m_Settings.front().comment = "no effect: the ring buffer has no size";
}

}  // namespace ravctl
