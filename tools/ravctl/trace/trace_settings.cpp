#include "ravctl/trace/trace_settings.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "ravctl/base/error.h"
#include "ravctl/base/text.h"
#include "ravctl/daemon/process.h"
#include "trace/trace_settings.h"

namespace ravctl {

namespace {

constexpr const char* kGlobalFileName = "global_trace.ini";
constexpr const char* kGlobalSection = "GlobalDebugSettings";
constexpr const char* kDynamicUpdate = "DynamicUpdate";
constexpr const char* kDaemonApplication = "ravd";
constexpr uint32_t kLargestFactor = 2;
constexpr uint32_t kNotGiven = ::TraceSettings::kNotGiven;

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

// Its variables, each with a zero behind it, take the place of the process's own.
class Environment {
 public:
  explicit Environment(std::string text) : m_Text(std::move(text)), m_Own(environ) {
    for (size_t at = 0; at < m_Text.size(); at = std::min(m_Text.find('\0', at), m_Text.size()) + 1)
      m_Variables.push_back(m_Text.data() + at);
    m_Variables.push_back(nullptr);
    environ = m_Variables.data();
  }
  ~Environment() { environ = m_Own; }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

 private:
  std::string m_Text;
  char** m_Own;
  std::vector<char*> m_Variables;
};

}  // namespace

TraceSettings::TraceSettings(std::string application) : m_Application(std::move(application)) {
  ReadFiles();
  const Environment environment(ReadEnvironment());
  Compute();
}

std::string TraceSettings::ReadEnvironment() {
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
  return m_IsDirectoryEmpty ? "" : text;  // it is not consulted then either
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

void TraceSettings::Add(const std::string& name, uint32_t value, const std::vector<std::string>& variables,
                        const CDebugTraceConfigFile* file, const char* key) {
  TraceSetting setting{name, std::to_string(value), "default", "", ""};
  const auto set =
      std::ranges::find_if(variables, [](const std::string& variable) { return ::getenv(variable.c_str()); });
  uint32_t read = kNotGiven;
  if (set != variables.end()) {
    setting.source = "environment";
    setting.from = *set;
    const std::string text = ::getenv(set->c_str());
    if (setting.value != text) setting.comment = "given as \"" + text + "\"";
  } else if (file != nullptr && file->ReadNumber(key, read) && read != kNotGiven) {
    setting.source = "file";
    setting.from =
        PathInDirectory(key == std::string_view(kDynamicUpdate) ? m_GlobalFile : m_ApplicationFile) + ": " + key;
  }
  m_Settings.push_back(std::move(setting));
}

void TraceSettings::Compute() {
  CDebugTraceConfigFile global, file;
  const ::TraceSettings read = ReadTraceSettings(m_Application.c_str(), global, file);
  m_Directory = read.directory;
  m_Level = read.traceLevel;
  m_DynamicUpdate = static_cast<uint32_t>(read.dynamicUpdate);
  const uint32_t factor = std::min(read.ringBufferFactor, kLargestFactor);

  Add("level", m_Level, {"QN_LOG_DEBUG_LEVEL"}, &file, "FileDebugLevel");
  m_IsLevelFromEnvironment = m_Settings.back().source == "environment";
  const char* variable = ::getenv("QN_LOG_RINGBUF_DIR");
  const bool isVariable = variable != nullptr && *variable != '\0';
  TraceSetting directory{"directory", m_Directory, isVariable ? "environment" : "default",
                         isVariable ? "QN_LOG_RINGBUF_DIR" : "", ""};
  if (!isVariable && read.iniDirectory[0] != '\0') {
    directory.source = "file";
    directory.from = PathInDirectory(m_ApplicationFile) + ": RingBufferDirectory";
  }
  m_Settings.push_back(std::move(directory));
  Add("ring_buffer_factor", read.ringBufferFactor, {"TraceFileLimit"}, &file, "RingBufferSizeFactor");
  if (read.ringBufferFactor > kLargestFactor) m_Settings.back().comment = "counts as 2";
  std::vector<std::string> weights = {"QN_LOG_RINGBUF_WEIGHT"};
  if (m_Level != 0) weights.insert(weights.begin(), WeightVariable(m_Application.c_str()).name);
  Add("ring_buffer_weight", read.ringBufferWeight, weights, &file, "RingBufferSizeWeight");
  Add("log_file_max_size", read.maxLogFileSize, {"QN_LOG_FILE_MAX_SIZE"});
  Add("no_header", read.noHeader, {"QN_LOG_NOHDR_TOSDTERR"}, &file, "NoHeaderToStderr");
  Add("memory_column", read.memoryTracesFlag == kNotGiven ? 1 : read.memoryTracesFlag, {}, &file, "MemoryTracesFlag");
  m_Settings.back().comment = read.memoryTracesFlag != 0 ? "on" : "off";
  Add("trace_flags", read.traceFlags, {}, &file, "TraceFlags");
  Add("dynamic_update", m_DynamicUpdate, {"QN_LOG_DYNAMIC_UPDATE"}, &global, kDynamicUpdate);
  m_Settings.back().comment = m_DynamicUpdate == 0 ? "files are read at start alone" : "seconds between two looks";

  const uint64_t page = static_cast<uint64_t>(std::max(::sysconf(_SC_PAGESIZE), 1L));
  const uint64_t size = page * uint64_t{factor * read.ringBufferWeight} * 256;
  m_IsTracing = m_Level != 0 && size != 0;
  m_Settings.push_back({"ring_buffer_size", std::to_string(size), "computed", "page size x factor x weight x 256",
                        size == 0 ? "nothing is traced without a ring buffer" : HumanSize(size)});
  if (m_Level != 0 && !m_IsTracing) m_Settings.front().comment = "no effect: the ring buffer has no size";
}

}  // namespace ravctl
