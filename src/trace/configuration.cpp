// Where the trace object takes its settings from: the ini files of the trace configuration directory, the environment
// and the built-in defaults; and how it follows changed files while it runs.

#include <dirent.h>

#include <cstdlib>
#include <cstring>

#include "platform/cancellation.h"
#include "trace/debug.h"

namespace {

constexpr const char* kConfigDirectory = "/etc/norrow/QuennetSuite/TraceConfig";
constexpr const char* kGlobalFile = "global_trace.ini";
constexpr const char* kGlobalSection = "GlobalDebugSettings";
constexpr const char* kDefaultDirectory = "/var/log/pelrix";
constexpr uint32_t kDefaultMaxLogFileSize = 51200;  // bytes
constexpr uint32_t kNotGiven = 0xFFFFFFFF;

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

}  // namespace

bool CDebug::ReadDebugConfig(const char* appName) {
  ForgetConfiguration();
  const IniFileList files(kConfigDirectory);
  // A directory without any ini file is somebody's wish for no configuration at all, the environment included.
  if (files.IsReadable() && files.Count() == 0) return true;

  m_IniRingBufferSizeFactor = m_IniRingBufferSizeWeight = m_IniNoHeader = m_MemoryTracesFlag = kNotGiven;
  m_IniDirectory[0] = '\0';
  if (m_GlobalConfig.OpenSectionInIniFile(kGlobalSection, kGlobalFile, kConfigDirectory)) {
    m_GlobalConfig.ReadNumber("DynamicUpdate", m_IniDynamicUpdate);
  }
  m_DynamicUpdate = static_cast<int32_t>(EffectiveValue("QN_LOG_DYNAMIC_UPDATE", m_IniDynamicUpdate, 0));

  const char* section = appName != nullptr ? appName : "";
  for (int index = 0; index < files.Count(); ++index) {
    if (!m_AppConfig.OpenSectionInIniFile(section, files.Name(index), kConfigDirectory)) continue;
    ReadApplicationSettings();
    break;
  }
  ComputeEffectiveValues();
  return true;
}

// Back to what construction gives, with the default directory: a second Init owes nothing to the first.
void CDebug::ForgetConfiguration() {
  m_GlobalConfig.Forget();
  m_AppConfig.Forget();
  m_TraceLevel = m_TraceLevelSaved = m_FileDebugLevel = m_TraceFlags = 0;
  m_IniRingBufferSizeFactor = m_IniRingBufferSizeWeight = m_IniNoHeader = m_IniDynamicUpdate = 0;
  m_MemoryTracesFlag = m_NoHeader = 0;
  m_RingBufferFactor = m_RingBufferWeight = 0;
  m_DynamicUpdate = 0;
  m_MaxLogFileSize = kDefaultMaxLogFileSize;
  m_IniDirectory[0] = '\0';
  std::snprintf(m_Directory, sizeof m_Directory, "%s", kDefaultDirectory);
}

void CDebug::ReadApplicationSettings() {
  m_AppConfig.ReadText("RingBufferDirectory", m_IniDirectory, sizeof m_IniDirectory);
  m_AppConfig.ReadNumber("FileDebugLevel", m_FileDebugLevel);
  m_AppConfig.ReadNumber("TraceFlags", m_TraceFlags);
  m_AppConfig.ReadNumber("RingBufferSizeFactor", m_IniRingBufferSizeFactor);
  m_AppConfig.ReadNumber("RingBufferSizeWeight", m_IniRingBufferSizeWeight);
  m_AppConfig.ReadNumber("NoHeaderToStderr", m_IniNoHeader);
  m_AppConfig.ReadNumber("MemoryTracesFlag", m_MemoryTracesFlag);
}

void CDebug::ComputeEffectiveValues() {
  const char* directory = std::getenv("QN_LOG_RINGBUF_DIR");
  if (directory == nullptr) directory = m_IniDirectory[0] != '\0' ? m_IniDirectory : kDefaultDirectory;
  std::snprintf(m_Directory, sizeof m_Directory, "%s", directory);
  m_MaxLogFileSize = EffectiveValue("QN_LOG_FILE_MAX_SIZE", kNotGiven, kDefaultMaxLogFileSize);
  m_TraceLevel = EffectiveValue("QN_LOG_DEBUG_LEVEL", m_FileDebugLevel, 0);
  m_RingBufferFactor = EffectiveValue("TraceFileLimit", m_IniRingBufferSizeFactor, 0);
  m_RingBufferWeight = EffectiveValue("QN_LOG_RINGBUF_WEIGHT", m_IniRingBufferSizeWeight, 0);
  m_NoHeader = EffectiveValue("QN_LOG_NOHDR_TOSDTERR", m_IniNoHeader, 1);
  m_TraceLevelSaved = m_TraceLevel;
}

void CDebug::UpdateConfiguration() {
  const CancellationBlock block;  // a thread that ended half way would lose the change for good
  const time_t now = time(nullptr);
  if (m_LastConfigCheck <= now && now < m_LastConfigCheck + m_DynamicUpdate) return;
  m_LastConfigCheck = now;

  if (m_GlobalConfig.IsFollowed() && m_GlobalConfig.WasModified() &&
      m_GlobalConfig.OpenSectionInIniFile(kGlobalSection, nullptr, nullptr) &&
      m_GlobalConfig.ReadNumber("DynamicUpdate", m_IniDynamicUpdate) && m_IniDynamicUpdate != kNotGiven) {
    m_DynamicUpdate = static_cast<int32_t>(m_IniDynamicUpdate);
  }
  if (m_AppConfig.IsFollowed() && m_AppConfig.WasModified() &&
      m_AppConfig.OpenSectionInIniFile(m_AppName != nullptr ? m_AppName : "", nullptr, nullptr)) {
    if (m_AppConfig.ReadNumber("FileDebugLevel", m_FileDebugLevel) && m_FileDebugLevel != kNotGiven) {
      m_TraceLevel = m_FileDebugLevel;
      m_TraceLevelSaved = m_FileDebugLevel;
    }
    m_AppConfig.ReadNumber("TraceFlags", m_TraceFlags);
    m_AppConfig.ReadNumber("MemoryTracesFlag", m_MemoryTracesFlag);
  }
}
