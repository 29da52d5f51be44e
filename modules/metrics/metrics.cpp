#include "metrics/metrics.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>

#include "base/whole_file.h"
#include "daemon/version.h"
#include "machine/interfaces.h"
#include "metrics/page.h"
#include "metrics/system_figures.h"
#include "platform/ini_file.h"
#include "switch/module_interface.h"
#include "trace/debug.h"

namespace {

constexpr const char* kSection = "metrics";
constexpr const char* kNone = "none";
constexpr unsigned int kTextFileSeconds = 60;
constexpr int kScanMs = 300'000;  // a drive that does not answer holds a scan up for 50 seconds
constexpr int kVolumeScanMs = 50'000;
constexpr const char* kChangeKinds[] = {"adapter", "dimm", "drive", "machine", "slot"};

using Clock = std::chrono::steady_clock;

}  // namespace

MetricsSettings MetricsSettings::Read() {
  CIniFile file;
  file.Open(kModulesFile);
  MetricsSettings settings;
  std::error_code error;
  const bool hasDirectory = std::filesystem::is_directory(std::filesystem::path(kTextFile).parent_path(), error);
  file.GetString(settings.textFile, kSection, "TextFile", hasDirectory ? kTextFile : kNone);
  file.GetString(settings.listen, kSection, "Listen", settings.textFile == kNone ? kListen : kNone);
  settings.isRemoteAllowed = file.GetNumber(kSection, "AllowRemote", 0) != 0;
  settings.LookSettings::Read(file, kSection);
  return settings;
}

Metrics::Metrics(MetricsSettings settings) : m_Settings(std::move(settings)), m_Query(m_Settings.program) {
  m_Figures.version = RAVD_VERSION;
  for (const char* kind : kChangeKinds)
    for (const auto change : {MachineChange::kAdded, MachineChange::kRemoved, MachineChange::kChanged})
      m_Figures.changes[{kind, ToText(change)}] = 0;
}

Metrics::~Metrics() {
  m_Query.Stop();
  {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    m_IsStopping = true;
  }
  m_Wake.notify_all();
  if (m_SampleThread.joinable()) m_SampleThread.join();
  if (m_HardwareThread.joinable()) m_HardwareThread.join();
  if (m_Settings.textFile != kNone) ::unlink(m_Settings.textFile.c_str());
}

bool Metrics::Start() {
  std::string error;
  if (m_Settings.listen != kNone) {
    if (m_Server.Start(m_Settings.listen, m_Settings.isRemoteAllowed, error)) {
      TRACE(2, "\nMetrics             : The page is at %s", m_Server.Where().c_str());
    } else {
      TRACE(1, "\nMetrics             : ERROR! No page at %s: %s", m_Settings.listen.c_str(), error.c_str());
      if (m_Settings.textFile == kNone) return false;
    }
  } else if (m_Settings.textFile == kNone) {
    TRACE(1, "\nMetrics             : ERROR! Neither a text file nor an address is wanted");
    return false;
  }
  if (m_Settings.textFile != kNone) TRACE(2, "\nMetrics             : The page is in %s", m_Settings.textFile.c_str());
  m_SampleThread = std::thread(&Metrics::Sample, this);
  m_HardwareThread = std::thread(&Metrics::LookAtHardware, this);
  return true;
}

bool Metrics::WaitForStop(unsigned int seconds) {
  std::unique_lock<std::mutex> lock(m_Mutex);
  return m_Wake.wait_for(lock, std::chrono::seconds(seconds), [this] { return m_IsStopping; });
}

void Metrics::Sample() {
  Clock::time_point written;
  Figures figures;
  for (std::unique_lock<std::mutex> lock(m_Mutex); !m_IsStopping;) {
    const bool hasNews = std::exchange(m_HasNews, false);
    figures.machine = m_Figures.machine;
    figures.volumes = m_Figures.volumes;
    figures.changes = m_Figures.changes;
    figures.lastChange = m_Figures.lastChange;
    figures.version = m_Figures.version;
    lock.unlock();
    SampleSystem(figures);
    figures.modules = ReadModules();
    m_Server.Publish(WritePage(figures, PageFor::kScrape));
    if (m_Settings.textFile != kNone && (IsTime(written, kTextFileSeconds) || hasNews))
      WriteTextFile(WritePage(figures, PageFor::kTextFile));
    lock.lock();
    m_Wake.wait_for(lock, std::chrono::seconds(m_Settings.intervalSeconds),
                    [this] { return m_IsStopping || m_HasNews; });
  }
}

void Metrics::WriteTextFile(const std::string& page) {
  const bool isWritten = ReplaceText(m_Settings.textFile, page, 0644);
  if (!isWritten && !m_HasWarned) {
    TRACE(1, "\nMetrics             : WARNING! %s is not written: %s", m_Settings.textFile.c_str(), ::strerror(errno));
  }
  m_HasWarned = !isWritten;
}

void Metrics::LookAtHardware() {
  Clock::time_point volumes, hardware;
  std::string devices;
  do {
    const std::string devicesNow = ListDevices();
    if (std::exchange(devices, devicesNow) != devicesNow) volumes = hardware = Clock::time_point();
    bool hasNews = IsTime(volumes, m_Settings.volumeSeconds) && ScanVolumes();
    if (IsTime(hardware, m_Settings.rescanSeconds)) hasNews = ScanHardware() || hasNews;
    if (!hasNews) continue;
    {
      const std::lock_guard<std::mutex> lock(m_Mutex);
      m_HasNews = true;
    }
    m_Wake.notify_all();
  } while (!WaitForStop(m_Settings.intervalSeconds));
}

// Volumes that do not answer in time leave the figures of before; each one that is slow tells so by itself.
bool Metrics::ScanVolumes() {
  MachineRecords volumes;
  if (!m_Query.Ask("volumes", kVolumeScanMs, volumes)) return false;
  const std::lock_guard<std::mutex> lock(m_Mutex);
  const bool isFirst = m_Figures.volumes.empty();
  m_Figures.volumes = std::move(volumes);
  return isFirst;
}

bool Metrics::ScanHardware() {
  MachineRecords machine;
  if (!m_Query.Ask(m_Settings.withSerialNumbers ? "hardware serials" : "hardware", kScanMs, machine)) return false;
  const std::lock_guard<std::mutex> lock(m_Mutex);
  const bool isFirst = m_Figures.machine.empty();
  const std::vector<MachineChange> changes = CompareMachines(m_Figures.machine, machine);
  m_Figures.machine = std::move(machine);
  if (!isFirst) CountChanges(changes);
  return !changes.empty();
}

// The lock is held.
void Metrics::CountChanges(const std::vector<MachineChange>& changes) {
  for (const MachineChange& change : changes)
    ++m_Figures.changes[{change.kind, ToText(change.change)}];
  if (!changes.empty()) m_Figures.lastChange = ::time(nullptr);
}
