// perf: the load of the machine, once or again and again.

#include "ravctl/commands/perf.h"

#include <algorithm>
#include <thread>
#include <tuple>

#include "ravctl/answer/formats.h"
#include "ravctl/answer/json.h"
#include "ravctl/answer/stream_table.h"
#include "ravctl/base/text.h"
#include "ravctl/daemon/signal_watch.h"
#include "ravctl/hardware/perf_sampler.h"
#include "ravctl/line/command.h"
#include "ravctl/tree/enter.h"
#include "ravctl/tree/live_answers.h"

namespace ravctl {

namespace {

constexpr double kOnceSeconds = 0.5;
constexpr double kRowSeconds = 1.0;

struct PerfOptions {
  double interval = 0.0;  // seconds, 0 = the usual
  std::optional<size_t> count;
  std::vector<std::string> interfaces;
};

std::string PercentText(const Json& percent) {
  return percent.dump() + "%";
}

Color LoadColor(const Json& percent) {
  const int value = percent.get<int>();
  return value >= 90 ? Color::kRed : value >= 70 ? Color::kYellow : Color::kNone;
}

constexpr auto kCpuFields = std::to_array<Field>({
    {"used_percent", kCountOrNull, "what was used of the time of all processors"},
    {"user_percent", kCountOrNull, "by programs"},
    {"kernel_percent", kCountOrNull, "by the kernel"},
    {"idle_percent", kCountOrNull, "what was left"},
});
constexpr auto kMemoryFields = std::to_array<Field>({
    {"physical_percent", kCountOrNull, "what is used of the memory"},
    {"physical_used", kCountOrNull, "that in bytes; what the kernel caches counts"},
    {"physical_total", kCountOrNull, "bytes of memory"},
    {"virtual_percent", kCountOrNull, "what is used of memory and swap space"},
    {"virtual_used", kCountOrNull, "that in bytes"},
    {"virtual_total", kCountOrNull, "bytes of memory and swap space"},
});
constexpr auto kNetworkFields = std::to_array<Field>({
    {"name", kText, "name of the interface"},
    {"percent", kCountOrNull, "what was used of the link"},
    {"received_percent", kCountOrNull, "by what was received"},
    {"sent_percent", kCountOrNull, "by what was sent"},
    {"received_bytes_per_s", kCountOrNull, "bytes received a second"},
    {"sent_bytes_per_s", kCountOrNull, "bytes sent a second"},
    {"speed_bytes_per_s", kCountOrNull, "bytes a second that the link can carry"},
});
constexpr auto kSampleFields = std::to_array<Field>({
    {"time", kTime, "local time at the end of the sample"},
    {"interval_ms", kCount, "milliseconds that it covers"},
    {"cpu", Record(kCpuFields), "the processors"},
    {"memory", Record(kMemoryFields), "the memory"},
    {"network", ListOf(kNetworkFields), "the interfaces that are sampled"},
});

constexpr auto kObjectFields = std::to_array<Field>({
    {"object", Choice("cpu|memory|network"), "what has the load"},
    {"name", kText, "which one of them"},
    {"used", kCountOrNull, "how much of it is used", {.format = PercentText, .color = LoadColor}},
    {"detail", kText, "by what"},
});
constexpr Cell kLoad = {.format = PercentText, .color = LoadColor, .width = 4};
constexpr auto kRowFields = std::to_array<Field>({
    {"time", kTime, "local time at the end of the sample", {.width = 23}},
    {"cpu", kCount, "what was used of the time of all processors", kLoad},
    {"user", kCount, "by programs", kLoad},
    {"kernel", kCount, "by the kernel", kLoad},
    {"idle", kCount, "what was left", {.isUsual = false, .format = PercentText, .width = 4}},
    {"memory", kCount, "what is used of the memory", kLoad},
    {"memory_used", kCount, "that in bytes", {.heading = "USED", .format = SizeText, .width = 6}},
    {"virtual", kCount, "what is used of memory and swap space", kLoad},
    {"virtual_used", kCount, "that in bytes", {"VIRTUAL-USED", false, SizeText, nullptr, 6}},
    {"received",
     kCount,
     "bytes received a second by all interfaces",
     {.heading = "IN", .format = RateText, .width = 7}},
    {"sent", kCount, "bytes sent a second by all interfaces", {.heading = "OUT", .format = RateText, .width = 7}},
});
constexpr Schema kPerfRows = {"perf-sample", 1, Record(kSampleFields), kRowFields};
// Of each interface, with its name and a full stop in front: "eth0.used".
constexpr auto kInterfaceFields = std::to_array<Field>({
    {"used", kCount, "what was used of the link", {"USED", false, PercentText, LoadColor, 4}},
    {"received", kCount, "bytes received a second", {"IN", false, RateText, nullptr, 7}},
    {"sent", kCount, "bytes sent a second", {"OUT", false, RateText, nullptr, 7}},
});

bool WarnAboutMissing(const Json& sample, Output& out) {
  const bool hasCpu = !sample["cpu"]["used_percent"].is_null();
  const bool hasMemory = !sample["memory"]["physical_used"].is_null();
  if (!hasCpu) out.Warn("the use of the processors cannot be told", "/proc/stat", "try a longer --interval");
  if (!hasMemory) out.Warn("the use of the memory cannot be told", "/proc/meminfo", "");
  return !hasCpu || !hasMemory;
}

std::string RateOrDash(const Json& rate) {
  return rate.is_null() ? "-" : RateText(rate);
}

std::string CpuText(const Json& cpu) {
  if (cpu["used_percent"].is_null()) return "";
  return "user " + cpu["user_percent"].dump() + "%, kernel " + cpu["kernel_percent"].dump() + "%, idle " +
         cpu["idle_percent"].dump() + "%";
}

Table ObjectTable(const Json& sample) {
  Table table(kPerf);
  const auto add = [&table](const char* object, const Json& name, const Json& used, const std::string& detail) {
    table.Add({{"object", object}, {"name", name}, {"used", used}, {"detail", detail}});
  };
  add("cpu", "all", sample["cpu"]["used_percent"], CpuText(sample["cpu"]));
  const Json& memory = sample["memory"];
  for (const std::string kind : {"physical", "virtual"}) {
    const Json& used = memory[kind + "_used"];
    const Json& total = memory[kind + "_total"];
    add("memory", kind, memory[kind + "_percent"],
        used.is_null() || total.is_null() ? "" : SizeText(used) + " of " + SizeText(total));
  }
  for (const Json& load : sample["network"]) {
    std::string detail =
        "in " + RateOrDash(load["received_bytes_per_s"]) + ", out " + RateOrDash(load["sent_bytes_per_s"]);
    if (!load["speed_bytes_per_s"].is_null()) detail += ", link " + RateText(load["speed_bytes_per_s"]);
    add("network", load["name"], load["percent"], detail);
  }
  return table;
}

StreamTable RowTable(const Json& sample, Output& out) {
  std::vector<Column> columns = ColumnsOf(kRowFields);
  for (const Json& load : sample["network"]) {
    const std::string name = load["name"];
    for (Column& column : ColumnsOf(kInterfaceFields)) {
      column.key = name + "." + column.key;
      column.heading = name + "-" + column.heading;
      columns.push_back(std::move(column));
    }
  }
  return {out, kPerfRows, std::move(columns)};
}

Json RowOf(const Json& sample) {
  const Json& cpu = sample["cpu"];
  const Json& memory = sample["memory"];
  Json row = {{"time", sample["time"]},
              {"cpu", cpu["used_percent"]},
              {"user", cpu["user_percent"]},
              {"kernel", cpu["kernel_percent"]},
              {"idle", cpu["idle_percent"]},
              {"memory", memory["physical_percent"]},
              {"memory_used", memory["physical_used"]},
              {"virtual", memory["virtual_percent"]},
              {"virtual_used", memory["virtual_used"]}};
  uint64_t received = 0, sent = 0;
  for (const Json& load : sample["network"]) {
    const std::string name = load["name"];
    for (const auto& [key, from, sum] :
         {std::tuple{".received", "received_bytes_per_s", &received}, {".sent", "sent_bytes_per_s", &sent}}) {
      row[name + key] = load[from];
      *sum += load[from].is_null() ? 0 : load[from].get<uint64_t>();
    }
    row[name + ".used"] = load["percent"];
  }
  if (!sample["network"].empty()) row.update({{"received", received}, {"sent", sent}});
  return row;
}

ExitCode Show(Json sample, const PerfOptions& options, Output& out) {
  KeepInterfaces(options.interfaces, sample);
  const bool isMissing = WarnAboutMissing(sample, out);
  out.Print(kPerf, ObjectTable(sample), sample);
  return isMissing ? ExitCode::kInputMissing : ExitCode::kDone;
}

ExitCode RunOnce(const PerfOptions& options, const SignalWatch& signals, Output& out) {
  PerfSampler sampler;
  const double seconds = options.interval > 0.0 ? options.interval : kOnceSeconds;
  if (signals.WaitUntil(Clock::now() + Seconds(seconds)) != 0) return ExitCode::kNothingOrDifferent;
  return Show(sampler.Take(), options, out);
}

ExitCode RunRows(const PerfOptions& options, const SignalWatch& signals, Output& out) {
  PerfSampler sampler;
  const auto interval = Seconds(options.interval > 0.0 ? options.interval : kRowSeconds);
  std::optional<StreamTable> rows;
  bool isMissing = false;
  Clock::time_point next = Clock::now();
  for (size_t number = 0; (*options.count == 0 || number < *options.count) && !out.IsClosed(); ++number) {
    // From one fixed time to the next, so that the rows do not drift; after a pause of the whole machine from now on.
    next = std::max(next + interval, Clock::now());
    if (signals.WaitUntil(next) != 0) break;
    Json sample = sampler.Take();
    KeepInterfaces(options.interfaces, sample);
    if (!rows) rows.emplace(RowTable(sample, out));
    if (!isMissing) isMissing = WarnAboutMissing(sample, out);
    rows->Add(RowOf(sample), sample);
  }
  return isMissing ? ExitCode::kInputMissing : ExitCode::kDone;
}

// The signals are taken before the monitor has a thread, which else would get them.
ExitCode RunPerf(const PerfOptions& options, Output& out) {
  if (IsInSysroot() && (options.count || options.interval > 0.0)) {
    throw CommandError(ExitCode::kUsage, "a captured tree has the load of one moment", "--count, --interval",
                       "leave them out");
  }
  if (IsInSysroot()) return Show(CapturedAnswer(kPerf, out), options, out);
  const SignalWatch signals({SIGINT, SIGTERM});
  return options.count ? RunRows(options, signals, out) : RunOnce(options, signals, out);
}

}  // namespace

constexpr Schema kPerf = {"perf-sample", 1, Record(kSampleFields), kObjectFields};

Json ReadPerf() {
  PerfSampler sampler;
  std::this_thread::sleep_for(Seconds(kOnceSeconds));
  return sampler.Take();
}

void AddPerf(Command& root) {
  auto options = std::make_shared<PerfOptions>();
  Command& perf = root.Add({"perf",
                            "Show the load of processors, memory (what the kernel caches counts as used) and network",
                            {{"ravctl perf", "over half a second"},
                             {"ravctl perf --interval 5 --json", "over five seconds, as an object"},
                             {"ravctl perf --interval 1 --count 3", "three rows, one a second"},
                             {"ravctl perf --count 2 -o time,cpu,memory,received,sent", "two rows of chosen columns"}}},
                           [options](Output& out) { return RunPerf(*options, out); });
  perf.Answers({&kPerf, &kPerfRows});
  perf.AddOption("--interval", &options->interval, "SECONDS", "Seconds that a sample covers (0.5, with --count 1)",
                 InRange(0.1, 86400.0));
  perf.AddOption("-n,--count", &options->count, "N", "A row for each of so many samples; 0 goes on until Ctrl-C",
                 NotNegative());
  perf.AddOption("-i,--interface", &options->interfaces, "NAME",
                 "Only these network interfaces, of those that are sampled")
      .offered = "net list -o name";
}

}  // namespace ravctl
