#include "metrics/page.h"

#include <charconv>
#include <cmath>
#include <initializer_list>
#include <set>
#include <string_view>
#include <utility>

namespace {

// Bytes of the UTF-8 character at the start of the text, 0 when there is none (RFC 3629).
size_t Utf8Length(std::string_view text) {
  const auto byte = [&](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
  const auto follows = [&](size_t i) { return (byte(i) & 0xC0U) == 0x80U; };
  const unsigned int first = byte(0);
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first < 0xE0) return follows(1) ? 2 : 0;
  if (first >= 0xE0 && first < 0xF0) {
    const bool isAllowed = !(first == 0xE0 && byte(1) < 0xA0) && !(first == 0xED && byte(1) >= 0xA0);
    return isAllowed && follows(1) && follows(2) ? 3 : 0;
  }
  const bool isAllowed =
      first >= 0xF0 && first < 0xF5 && !(first == 0xF0 && byte(1) < 0x90) && !(first == 0xF4 && byte(1) >= 0x90);
  return isAllowed && follows(1) && follows(2) && follows(3) ? 4 : 0;
}

void AppendLabelValue(std::string& out, std::string_view value) {
  while (!value.empty()) {
    const size_t length = Utf8Length(value);
    const char letter = value[0];
    if (length == 0) {
      out += "\xEF\xBF\xBD";  // the replacement character
    } else if (letter == '\\' || letter == '"') {
      out += '\\';
      out += letter;
    } else if (letter == '\n') {
      out += "\\n";
    } else if (length == 1 && (static_cast<unsigned char>(letter) < ' ' || letter == 0x7F)) {
      out += ' ';
    } else {
      out += value.substr(0, length);
    }
    value.remove_prefix(length == 0 ? 1 : length);
  }
}

using Labels = std::vector<std::pair<std::string_view, std::string_view>>;

// Writes families of samples one after the other.
class Page {
 public:
  void Family(const char* name, const char* type, const char* help) {
    m_Name = name;
    m_Type = type;
    m_Help = help;
    m_Written.clear();
  }

  // Labels without a text are left out: to the reader they are the same.
  void Sample(const Labels& labels, double value) {
    if (!std::isfinite(value)) return;
    char number[40];
    const auto [end, error] = std::to_chars(number, number + sizeof number, value);
    Write(labels, std::string_view(number, static_cast<size_t>(end - number)));
  }
  // Not through a double, which would round it.
  void Sample(const Labels& labels, uint64_t value) { Write(labels, std::to_string(value)); }
  template <typename Number>
  void Sample(const Labels& labels, const std::optional<Number>& value) {
    if (value) Sample(labels, *value);
  }

  template <typename Value>
  void Single(const char* name, const char* type, const char* help, const Value& value) {
    Family(name, type, help);
    Sample({}, value);
  }

  std::string Finish() {
    if (m_LeftOut > 0) {
      m_Series = 0;
      Single("ravd_series_left_out", "gauge", "Series for which the page had no room.", uint64_t{m_LeftOut});
    }
    return std::move(m_Text);
  }

 private:
  void Write(const Labels& labels, std::string_view number) {
    std::string series;
    for (const auto& [name, value] : labels) {
      if (value.empty()) continue;
      series.append(series.empty() ? "{" : ",").append(name).append("=\"");
      AppendLabelValue(series, value);
      series += '"';
    }
    if (!series.empty()) series += '}';
    if (m_Written.contains(series)) return;
    if (m_Series == kMaxSeries) {
      ++m_LeftOut;
      return;
    }
    ++m_Series;
    if (m_Written.empty()) {
      m_Text.append("# HELP ").append(m_Name).append(" ").append(m_Help).append("\n# TYPE ").append(m_Name);
      m_Text.append(" ").append(m_Type).append("\n");
    }
    m_Text.append(m_Name).append(series).append(" ").append(number).append("\n");
    m_Written.insert(std::move(series));
  }

  std::string m_Text;
  const char* m_Name = "";
  const char* m_Type = "";
  const char* m_Help = "";
  std::set<std::string> m_Written;  // the series of the family
  size_t m_Series = 0;
  size_t m_LeftOut = 0;
};

using Names = std::initializer_list<const char*>;

// A family of the machine's records: with a field its reading, without one the description, whose value is 1.
struct MachineFamily {
  const char* kind;
  const char* field;  // "" = info
  const char* name;
  const char* help;
  Names labels;
};

const MachineFamily kMachineFamilies[] = {
    {"machine",
     "",
     "ravd_machine_info",
     "The machine as its firmware describes it.",
     {"vendor", "product", "board", "bios_version", "bios_date", "serial"}},
    {"slot", "", "ravd_slot_info", "Slots for expansion cards.", {"slot", "designation", "width", "source", "address"}},
    {"slot",
     "occupied",
     "ravd_slot_occupied",
     "Whether the firmware says that a card is in the slot.",
     {"slot", "designation"}},
    {"slot",
     "conflict",
     "ravd_slot_conflict",
     "Whether the firmware contradicts itself about the slot, or the functions that answer.",
     {"slot", "designation"}},
    {"adapter",
     "",
     "ravd_adapter_info",
     "PCI functions but for bridges.",
     {"address", "slot", "slot_source", "kind", "vendor_id", "device_id", "driver"}},
    {"adapter", "", "ravd_adapter_firmware_info", "Firmware of network adapters.", {"address", "firmware"}},
    {"adapter",
     "lanes",
     "ravd_adapter_link_lanes",
     "Lanes that the PCI Express link of the adapter uses.",
     {"address"}},
    {"dimm",
     "",
     "ravd_dimm_info",
     "Memory modules that are there.",
     {"locator", "bank", "manufacturer", "part", "type", "serial"}},
    {"dimm", "size", "ravd_dimm_size_bytes", "Size of the memory module.", {"locator", "bank"}},
    {"drive", "", "ravd_drive_info", "Drives.", {"device", "address", "slot", "vendor", "model", "firmware", "serial"}},
    {"drive", "size", "ravd_drive_size_bytes", "Size of the drive.", {"device"}},
    {"scan",
     "seconds",
     "ravd_scan_duration_seconds",
     "How long the last look at a part of the machine took.",
     {"part"}},
};

const MachineFamily kVolumeFamilies[] = {
    {"volume",
     "",
     "ravd_volume_info",
     "Mounted volumes, and the slot of the adapter behind which each lies.",
     {"mountpoint", "fstype", "device", "drive", "slot"}},
    {"volume", "size", "ravd_volume_size_bytes", "Size of the volume.", {"mountpoint"}},
    {"volume",
     "available",
     "ravd_volume_available_bytes",
     "What of the volume everybody may still use.",
     {"mountpoint"}},
    {"volume", "answering", "ravd_volume_answering", "Whether the volume answered in time.", {"mountpoint"}},
};

// The label's text in the record. A firmware's version and the name of a part stand under other names there.
std::string_view LabelText(const MachineRecord& record, std::string_view label) {
  return label == "part" && record.kind == "scan" ? record.key : record.Get(label);
}

std::string_view LabelName(const MachineFamily& family, std::string_view label) {
  return label == "firmware" && std::string_view(family.kind) == "adapter" ? "version" : label;
}

void WriteRecord(Page& page, const MachineFamily& family, const MachineRecord& record) {
  Labels labels;
  for (const char* label : family.labels)
    labels.emplace_back(LabelName(family, label), LabelText(record, label));
  if (family.field[0] == '\0') {
    // The firmware of those that have one.
    if (std::string_view(family.name).find("firmware") == std::string_view::npos || !record.Get("firmware").empty())
      page.Sample(labels, uint64_t{1});
    return;
  }
  const std::string& text = record.Get(family.field);
  const char* end = text.data() + text.size();
  double value = 0;
  uint64_t whole = 0;
  if (const auto read = std::from_chars(text.data(), end, whole); read.ec == std::errc{} && read.ptr == end)
    page.Sample(labels, whole);
  else if (const auto real = std::from_chars(text.data(), end, value);
           real.ec == std::errc{} && real.ptr == end && value >= 0)  // a negative one stands for an unknown one
    page.Sample(labels, value);
}

template <size_t count>
void WriteRecords(Page& page, const MachineFamily (&families)[count], const MachineRecords& records) {
  for (const MachineFamily& family : families) {
    page.Family(family.name, "gauge", family.help);
    for (const MachineRecord& record : records)
      if (record.kind == family.kind) WriteRecord(page, family, record);
  }
}

// The volumes with the slot of the adapter that their drive lies behind.
MachineRecords WithSlots(MachineRecords volumes, const MachineRecords& machine) {
  for (MachineRecord& volume : volumes) {
    for (const MachineRecord& record : machine) {
      if (record.kind == "adapter" && !record.key.empty() && record.key == volume.Get("address"))
        volume.Add("slot", record.Get("slot"));
    }
  }
  return volumes;
}

// One member of the interfaces as a family.
template <typename Member>
void WriteInterfaces(Page& page, const std::vector<InterfaceFigures>& interfaces, const char* name, const char* type,
                     const char* help, Member member) {
  page.Family(name, type, help);
  for (const InterfaceFigures& interface : interfaces)
    page.Sample({{"device", interface.device}}, interface.*member);
}

void WriteInterfaces(Page& page, const std::vector<InterfaceFigures>& interfaces) {
  page.Family("ravd_interface_info", "gauge", "Network interfaces.");
  for (const InterfaceFigures& interface : interfaces) {
    page.Sample({{"device", interface.device}, {"address", interface.address}, {"mac", interface.mac}}, uint64_t{1});
  }
  using F = InterfaceFigures;
  page.Family("ravd_interface_up", "gauge", "Whether the interface carries traffic.");
  for (const InterfaceFigures& interface : interfaces)
    if (interface.isUp) page.Sample({{"device", interface.device}}, uint64_t{*interface.isUp});
  WriteInterfaces(page, interfaces, "ravd_interface_speed_bytes", "gauge", "Bytes a second that the link carries.",
                  &F::speed);
  WriteInterfaces(page, interfaces, "ravd_interface_receive_bytes_total", "counter", "Bytes received.", &F::received);
  WriteInterfaces(page, interfaces, "ravd_interface_transmit_bytes_total", "counter", "Bytes sent.", &F::sent);
}

void WriteLoad(Page& page, const Figures& figures) {
  page.Family("ravd_cpu_seconds_total", "counter", "Time of all processors together, by what it was spent on.");
  for (size_t mode = 0; figures.cpu && mode < kCpuModes.size(); ++mode)
    page.Sample({{"mode", kCpuModes[mode]}}, (*figures.cpu)[mode]);
  page.Single("ravd_cpu_busy_ratio", "gauge", "Share of the last interval in which the processors were not idle.",
              figures.cpuBusy);
  const MemoryFigures& memory = figures.memory;
  page.Single("ravd_memory_total_bytes", "gauge", "Physical memory.", memory.total);
  page.Single("ravd_memory_available_bytes", "gauge", "Memory that is there for programs.", memory.available);
  page.Single("ravd_memory_swap_total_bytes", "gauge", "Swap space.", memory.swapTotal);
  page.Single("ravd_memory_swap_free_bytes", "gauge", "Swap space that is not in use.", memory.swapFree);
}

void WriteDaemon(Page& page, const Figures& figures) {
  page.Family("ravd_build_info", "gauge", "The version of the modules.");
  page.Sample({{"version", figures.version}}, uint64_t{1});
  page.Family("ravd_module_info", "gauge", "Modules that the daemon has loaded.");
  for (const ModuleFigures& module : figures.modules)
    page.Sample({{"module", module.name}, {"version", module.version}, {"build_id", module.buildId}}, uint64_t{1});
  page.Family("ravd_module_up", "gauge", "Whether the module runs.");
  for (const ModuleFigures& module : figures.modules)
    page.Sample({{"module", module.name}}, uint64_t{module.isRunning});
  page.Family("ravd_changes_total", "counter", "Changes of the machine that were seen.");
  for (const auto& [what, count] : figures.changes)
    page.Sample({{"kind", what.first}, {"change", what.second}}, count);
  if (figures.lastChange) {
    page.Single("ravd_last_change_timestamp_seconds", "gauge", "When the machine changed last.",
                static_cast<uint64_t>(*figures.lastChange));
  }
  if (figures.isTracing)
    page.Single("ravd_trace_active", "gauge", "Whether the daemon traces.", uint64_t{*figures.isTracing});
  if (figures.traceLevel)
    page.Single("ravd_trace_level", "gauge", "Level up to which the daemon traces.", uint64_t{*figures.traceLevel});
}

void WriteProcess(Page& page, const ProcessFigures& process) {
  page.Single("process_cpu_seconds_total", "counter", "Processor time of the daemon.", process.cpuSeconds);
  page.Single("process_start_time_seconds", "gauge", "When the daemon was started.", process.startTime);
  page.Single("process_resident_memory_bytes", "gauge", "Memory of the daemon.", process.residentBytes);
  page.Single("process_virtual_memory_bytes", "gauge", "Address space of the daemon.", process.virtualBytes);
  page.Single("process_open_fds", "gauge", "Descriptors that the daemon has open.", process.openFiles);
  page.Single("process_max_fds", "gauge", "Descriptors that the daemon may open.", process.maxFiles);
  page.Single("process_threads", "gauge", "Threads of the daemon.", process.threads);
}

}  // namespace

std::string WritePage(const Figures& figures, PageFor reader) {
  Page page;
  WriteDaemon(page, figures);
  if (reader == PageFor::kScrape) WriteProcess(page, figures.process);
  WriteLoad(page, figures);
  WriteInterfaces(page, figures.interfaces);
  WriteRecords(page, kMachineFamilies, figures.machine);
  WriteRecords(page, kVolumeFamilies, WithSlots(figures.volumes, figures.machine));
  return page.Finish();
}
