#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ravctl/answer/output.h"
#include "ravctl/trace/trace_entry.h"

namespace ravctl {

// The columns of -o, and what an entry is in JSON.
inline constexpr auto kEntryFields = std::to_array<Field>({
    {"time", kText, "local time, yyyy-mm-dd hh:mm:ss.mmm", {.width = kTimeLength}},
    {"thread", Like("^[0-9A-F]{8}$"), "number of the thread", {.width = 8}},
    {"memory_kb", kCountOrNull, "resident memory of the process, when the trace has it", kInJson},
    {"memory",
     kCountOrNull,
     "resident memory of the process in KiB",
     {.heading = "MEMORY KB", .width = 10, .where = Where::kTable}},
    {"tag", kText, "the application", {.width = 13}},
    {"source", kTextOrNull, "module or routine that the text names at its front", {.isUsual = false, .width = 20}},
    {"message", kText, "the text behind that", {.isUsual = false, .where = Where::kTable}},
    {"text", kText, "the whole text"},
});

// Writes trace entries: as they stand in the file, in the columns of -o, as CSV or as JSON objects. Errors and warnings
// are coloured. Nothing is allocated for an entry that is plain text.
class EntryWriter {
 public:
  // The entries of a file between Begin and End, or with isFollowing one by one as they come.
  // Throws CommandError for a column that is none.
  EntryWriter(Output& out, const Schema& schema, bool isFollowing);

  void Begin();
  void Write(std::string_view whole);
  // That entries were passed over here; not in JSON and CSV.
  void Gap();
  void End();

 private:
  void AppendPlain(std::string_view whole);
  void AppendColumns(const TraceEntry& entry);
  void AppendCsv(const TraceEntry& entry);
  void AppendJson(const TraceEntry& entry);

  Output& m_Out;
  Schema m_Schema;
  bool m_IsFollowing;
  const std::vector<Column> m_Columns = ColumnsOf(kEntryFields);
  std::vector<size_t> m_Parts;  // the columns that are shown; empty: the entry as it stands
  std::string m_Line;           // reused
};

}  // namespace ravctl
