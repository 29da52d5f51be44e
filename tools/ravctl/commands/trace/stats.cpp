// trace stats: how much was traced, by whom.

#include <algorithm>
#include <map>

#include "ravctl/answer/json.h"
#include "ravctl/commands/trace/group.h"
#include "ravctl/line/command.h"
#include "ravctl/trace/trace_entry.h"

namespace ravctl {

namespace {

struct Count {
  uint64_t entries = 0;
  uint64_t bytes = 0;
  uint64_t errors = 0;
  uint64_t warnings = 0;
  std::string_view first, last;  // times

  void Add(const TraceEntry& entry) {
    ++entries;
    bytes += entry.whole.size();
    const Gravity gravity = GravityOf(entry.text);
    errors += gravity == Gravity::kError ? 1 : 0;
    warnings += gravity == Gravity::kWarning ? 1 : 0;
    if (first.empty()) first = entry.time;
    last = entry.time;
  }
};

using Counts = std::map<std::string_view, Count>;

void AddRow(const TraceFile& file, const char* group, std::string_view name, const Count& count, Table& table) {
  table.Add({{"file", file.Path()},
             {"group", group},
             {"name", name},
             {"entries", count.entries},
             {"bytes", count.bytes},
             {"errors", count.errors},
             {"warnings", count.warnings},
             {"first", count.first.empty() ? Json() : Json(count.first)},
             {"last", count.last.empty() ? Json() : Json(count.last)},
             {"wrapped", file.Layout().hasWrapped}});
}

void AddRows(const TraceFile& file, const char* group, const Counts& counts, Table& table) {
  std::vector<std::pair<std::string_view, const Count*>> order;
  for (const auto& [name, count] : counts)
    order.emplace_back(name, &count);
  std::ranges::stable_sort(order, std::greater{}, [](const auto& pair) { return pair.second->entries; });
  for (const auto& [name, count] : order)
    AddRow(file, group, name, *count, table);
}

ExitCode RunStats(const TraceSource& source, Output& out) {
  const std::vector<TraceFile> files = ReadTraceFiles(source);
  Table table(kTraceStats);
  table.SetUsual("file", files.size() > 1);
  uint64_t entries = 0;
  bool isDamaged = false;
  for (const TraceFile& file : files) {
    isDamaged = WarnAboutDamage(file, out) || isDamaged;
    Count all;
    Counts tags, sources, threads;
    for (const std::string_view part : file.Layout().parts) {
      ForEachEntry(part, [&](std::string_view whole) {
        const TraceEntry entry = ParseEntry(whole);
        all.Add(entry);
        tags[entry.tag].Add(entry);
        sources[entry.source].Add(entry);
        threads[entry.thread].Add(entry);
        return true;
      });
    }
    entries += all.entries;
    AddRow(file, "all", "", all, table);
    AddRows(file, "tag", tags, table);
    AddRows(file, "source", sources, table);
    AddRows(file, "thread", threads, table);
  }
  out.Print(kTraceStats, table);
  if (isDamaged) return ExitCode::kInputDamaged;
  return entries > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddTraceStats(Command& trace) {
  auto source = std::make_shared<TraceSource>();
  Command& stats =
      trace.Add({"stats",
                 "Count the entries of a trace: in all, by tag, by source (the module or routine) and by thread",
                 {{"ravctl trace stats", "of the daemon's ring buffers"},
                  {"ravctl trace stats -p log -o name,entries,errors", "of the log file"},
                  {"ravctl trace stats --json | jq '.data[] | select(.group == \"source\" and .errors > 0)'",
                   "which module fails"}}},
                [source](Output& out) { return RunStats(*source, out); });
  stats.Answers({&kTraceStats});
  AddSourceOptions(stats, *source);
}

}  // namespace ravctl
