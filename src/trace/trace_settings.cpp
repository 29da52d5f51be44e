#include "trace/trace_settings.h"

#include <dirent.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "trace/debug_trace_config_file.h"
#include "trace/log_file.h"

namespace {

constexpr const char* kConfigDirectory = "/etc/norrow/QuennetSuite/TraceConfig";
constexpr const char* kGlobalFile = "global_trace.ini";
constexpr const char* kGlobalSection = "GlobalDebugSettings";
constexpr const char* kDefaultDirectory = "/var/log/pelrix";
constexpr uint32_t kNotGiven = TraceSettings::kNotGiven;

// The names of a directory that contain ".ini", in alphabetical order.
class IniFileList {
 public:
  explicit IniFileList(const char* directory) : m_Count(::scandir(directory, &m_Entries, IsIniFile, alphasort)) {}
  ~IniFileList() {
    for (int index = 0; index < m_Count; ++index)
      std::free(m_Entries[index]);
    std::free(m_Entries);
  }
  IniFileList(const IniFileList&) = delete;
  IniFileList& operator=(const IniFileList&) = delete;

  bool IsReadable() const { return m_Count >= 0; }
  int Count() const { return m_Count; }
  const char* Name(int index) const { return m_Entries[index]->d_name; }

 private:
  static int IsIniFile(const dirent* entry) { return std::strstr(entry->d_name, ".ini") != nullptr ? 1 : 0; }

  dirent** m_Entries = nullptr;
  int m_Count;
};

// The environment's value (decimal) when the variable is set, else the file's when it is given, else the default.
uint32_t EffectiveValue(const char* variable, uint32_t iniValue, uint32_t defaultValue) {
  const char* value = std::getenv(variable);
  if (value != nullptr) return static_cast<uint32_t>(std::strtol(value, nullptr, 10));
  return iniValue != kNotGiven ? iniValue : defaultValue;
}

// An empty variable would put the files into the root directory.
const char* EffectiveDirectory(const TraceSettings& settings) {
  const char* value = std::getenv("QN_LOG_RINGBUF_DIR");
  if (value != nullptr && *value != '\0') return value;
  return settings.iniDirectory[0] != '\0' ? settings.iniDirectory : kDefaultDirectory;
}

void ReadFollowedKeys(const CDebugTraceConfigFile& file, TraceSettings& settings) {
  file.ReadNumber("TraceFlags", settings.traceFlags);
  file.ReadNumber("MemoryTracesFlag", settings.memoryTracesFlag);
}

void ReadApplicationKeys(const CDebugTraceConfigFile& file, TraceSettings& settings) {
  file.ReadText("RingBufferDirectory", settings.iniDirectory, sizeof settings.iniDirectory);
  file.ReadNumber("FileDebugLevel", settings.fileDebugLevel);
  file.ReadNumber("RingBufferSizeFactor", settings.iniRingBufferSizeFactor);
  file.ReadNumber("RingBufferSizeWeight", settings.iniRingBufferSizeWeight);
  file.ReadNumber("NoHeaderToStderr", settings.iniNoHeader);
  ReadFollowedKeys(file, settings);
}

void ComputeEffectiveValues(const char* appName, TraceSettings& settings) {
  std::snprintf(settings.directory, sizeof settings.directory, "%s", EffectiveDirectory(settings));
  settings.maxLogFileSize = EffectiveValue("QN_LOG_FILE_MAX_SIZE", kNotGiven, settings.maxLogFileSize);
  settings.traceLevel = EffectiveValue("QN_LOG_DEBUG_LEVEL", settings.fileDebugLevel, 0);
  settings.ringBufferFactor = EffectiveValue("TraceFileLimit", settings.iniRingBufferSizeFactor, 0);
  settings.ringBufferWeight = EffectiveValue("QN_LOG_RINGBUF_WEIGHT", settings.iniRingBufferSizeWeight, 0);
  if (settings.traceLevel != 0) {
    const uint32_t ofAll = settings.ringBufferWeight;
    settings.ringBufferWeight = EffectiveValue(WeightVariable(appName).name, kNotGiven, ofAll);
  }
  settings.noHeader = EffectiveValue("QN_LOG_NOHDR_TOSDTERR", settings.iniNoHeader, 1);
}

}  // namespace

TraceSettings ReadTraceSettings(const char* appName, CDebugTraceConfigFile& global,
                                CDebugTraceConfigFile& application) {
  global.Forget();
  application.Forget();
  TraceSettings settings;
  std::snprintf(settings.directory, sizeof settings.directory, "%s", kDefaultDirectory);
  settings.maxLogFileSize = LogFile::kDefaultMaxSize;
  const IniFileList files(kConfigDirectory);
  // A directory without any ini file is somebody's wish for no configuration at all, the environment included.
  if (files.IsReadable() && files.Count() == 0) return settings;

  settings.iniRingBufferSizeFactor = settings.iniRingBufferSizeWeight = kNotGiven;
  settings.iniNoHeader = settings.memoryTracesFlag = kNotGiven;
  if (global.OpenSectionInIniFile(kGlobalSection, kGlobalFile, kConfigDirectory))
    global.ReadNumber("DynamicUpdate", settings.iniDynamicUpdate);
  settings.dynamicUpdate = static_cast<int32_t>(EffectiveValue("QN_LOG_DYNAMIC_UPDATE", settings.iniDynamicUpdate, 0));
  for (int index = 0; index < files.Count(); ++index) {
    if (!application.OpenSectionInIniFile(appName, files.Name(index), kConfigDirectory)) continue;
    ReadApplicationKeys(application, settings);
    break;
  }
  ComputeEffectiveValues(appName, settings);
  return settings;
}

bool UpdateTraceSettings(TraceSettings& settings, const char* appName, CDebugTraceConfigFile& global,
                         CDebugTraceConfigFile& application) {
  if (global.IsFollowed() && global.WasModified() && global.OpenSectionInIniFile(kGlobalSection, nullptr, nullptr) &&
      global.ReadNumber("DynamicUpdate", settings.iniDynamicUpdate) && settings.iniDynamicUpdate != kNotGiven) {
    settings.dynamicUpdate = static_cast<int32_t>(settings.iniDynamicUpdate);
  }
  if (!application.IsFollowed() || !application.WasModified() ||
      !application.OpenSectionInIniFile(appName, nullptr, nullptr)) {
    return false;
  }
  ReadFollowedKeys(application, settings);
  return application.ReadNumber("FileDebugLevel", settings.fileDebugLevel) && settings.fileDebugLevel != kNotGiven;
}

void AppendAppName(char* buf, size_t size, const char* appName) {
  if (buf == nullptr || size == 0 || appName == nullptr || *appName == '\0') return;
  size_t length = strnlen(buf, size - 1);
  const auto append = [&](char character) {
    if (length + 1 < size) buf[length++] = character;
  };
  append('_');
  for (; *appName != '\0'; ++appName)
    append(static_cast<char>(std::toupper(static_cast<unsigned char>(*appName))));
  buf[length] = '\0';
}

WeightVariable::WeightVariable(const char* appName) {
  std::snprintf(name, sizeof name, "%s", "QN_LOG_RINGBUF_WEIGHT");
  AppendAppName(name, sizeof name, appName);
}
