#include "watch/watch.h"

#include <syslog.h>
#include <systemd/sd-journal.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <ctime>
#include <utility>

#include "machine/interfaces.h"
#include "platform/ini_file.h"
#include "switch/module_interface.h"
#include "trace/debug.h"

namespace {

constexpr const char* kSection = "watch";
constexpr int kScanMs = 300'000;  // a drive that does not answer holds a scan up for 50 seconds
constexpr int kVolumeScanMs = 50'000;
constexpr uint64_t kFullPart = 20;

using Clock = std::chrono::steady_clock;

uint64_t NumberOf(const MachineRecord& record, const char* field) {
  const std::string& text = record.Get(field);
  uint64_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

// What of a volume is worth telling.
MachineRecord StateOf(const MachineRecord& volume) {
  MachineRecord state{"mount", volume.key, {}};
  state.Add("device", volume.Get("mountpoint")).Add("answering", volume.Get("answering"));
  if (const uint64_t size = NumberOf(volume, "size"); size > 0)
    state.Add("full", NumberOf(volume, "available") < size / kFullPart ? "1" : "0");
  return state;
}

}  // namespace

WatchSettings WatchSettings::Read() {
  CIniFile file;
  file.Open(kModulesFile);
  WatchSettings settings;
  settings.LookSettings::Read(file, kSection);
  return settings;
}

Watch::Watch(WatchSettings settings, Teller teller)
    : m_Settings(std::move(settings)), m_Teller(std::move(teller)), m_Query(m_Settings.program) {}

Watch::~Watch() {
  m_Query.Stop();
  {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    m_IsStopping = true;
  }
  m_Wake.notify_all();
  if (m_Thread.joinable()) m_Thread.join();
}

void Watch::Start() {
  m_Thread = std::thread(&Watch::Run, this);
}

bool Watch::WaitForStop() {
  std::unique_lock<std::mutex> lock(m_Mutex);
  return m_Wake.wait_for(lock, std::chrono::seconds(m_Settings.intervalSeconds), [this] { return m_IsStopping; });
}

void Watch::Run() {
  m_Hardware = LoadLastMachine();
  Clock::time_point volumes, hardware;
  std::string devices;
  do {
    const std::string devicesNow = ListDevices();
    if (std::exchange(devices, devicesNow) != devicesNow) hardware = Clock::time_point();
    if (IsTime(hardware, m_Settings.rescanSeconds)) LookAtHardware();
    if (IsTime(volumes, m_Settings.volumeSeconds)) LookAtVolumes();
    LookAtLinks();
  } while (!WaitForStop());
}

void Watch::LookAtHardware() {
  MachineRecords found;
  if (!m_Query.Ask(m_Settings.withSerialNumbers ? "hardware serials" : "hardware", kScanMs, found)) return;
  std::erase_if(found, [](const MachineRecord& record) { return record.kind == "scan"; });
  if (found == m_Hardware) return;
  // Told before it is kept: a crash in between tells it twice, not never.
  TellChanges(m_Hardware, found);
  SaveLastMachine(found);
  m_Hardware = std::move(found);
}

void Watch::LookAtVolumes() {
  MachineRecords found, states;
  if (!m_Query.Ask("volumes", kVolumeScanMs, found)) return;
  for (const MachineRecord& volume : found)
    states.push_back(StateOf(volume));
  TellChanges(m_Volumes, states);
  m_Volumes = std::move(states);
}

void Watch::LookAtLinks() {
  MachineRecords links;
  for (const InterfaceFigures& interface : ReadInterfaces()) {
    if (interface.address.empty() || !interface.isUp) continue;
    links.push_back(MachineRecord{"interface", interface.device, {}}.Add("up", *interface.isUp ? "1" : "0"));
  }
  TellChanges(m_Links, links);
  m_Links = std::move(links);
}

// The first look of all is no change.
void Watch::TellChanges(const MachineRecords& before, const MachineRecords& after) {
  if (before.empty()) return;
  for (const MachineChange& change : CompareMachines(before, after)) {
    std::string text = Describe(change);
    const auto verdict = m_Flaps.Take(change.kind + ' ' + change.key + ' ' + change.field, ::time(nullptr));
    if (verdict == FlapFilter::Verdict::kSilent) continue;
    if (verdict == FlapFilter::Verdict::kLast)
      text += "; it comes and goes, no more of it until it is quiet for an hour";
    m_Teller(change, text);
  }
}

std::string Watch::Describe(const MachineChange& change) {
  std::string text = change.kind + " " + change.name;
  if (!change.slot.empty()) text += " (slot " + change.slot + ")";
  if (change.change == MachineChange::kAdded) return text + " is new";
  if (change.change == MachineChange::kRemoved) return text + " is gone";
  return text + ": " + change.field + " \"" + change.before + "\" => \"" + change.after + "\"";
}

void Watch::Tell(const MachineChange& change, const std::string& text) {
  TRACE(1, "\nWatch               : %s", text.c_str());
  ::sd_journal_send("MESSAGE=%s", text.c_str(), "PRIORITY=%d", LOG_NOTICE, "SYSLOG_IDENTIFIER=ravd", "RAVD_KIND=%s",
                    change.kind.c_str(), "RAVD_CHANGE=%s", ToText(change.change), "RAVD_DEVICE=%s", change.name.c_str(),
                    "RAVD_SLOT=%s", change.slot.c_str(), "RAVD_FIELD=%s", change.field.c_str(), "RAVD_BEFORE=%s",
                    change.before.c_str(), "RAVD_AFTER=%s", change.after.c_str(), nullptr);
}
