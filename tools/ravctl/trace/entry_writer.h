#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ravctl/answer/output.h"
#include "ravctl/trace/trace_entry.h"

namespace ravctl {

// Writes trace entries: as they stand in the file, in the columns of -o (time, thread, memory, tag, source, message,
// text), or as JSON objects. Errors and warnings are coloured. Nothing is allocated for an entry that is plain text.
class EntryWriter {
 public:
  // The entries of a file between Begin and End, or with isFollowing one by one as they come.
  // Throws CommandError for a column that is none.
  EntryWriter(Output& out, const Schema& schema, bool isFollowing);

  void Begin();
  void Write(std::string_view whole);
  // That entries were passed over here; not in JSON.
  void Gap();
  void End();

 private:
  enum class Part { kTime, kThread, kMemory, kTag, kSource, kMessage, kText };

  void ChooseParts(const std::string& columns);
  void AppendPlain(std::string_view whole);
  void AppendColumns(const TraceEntry& entry);
  void AppendJson(const TraceEntry& entry);

  Output& m_Out;
  Schema m_Schema;
  bool m_IsFollowing;
  std::vector<Part> m_Parts;  // empty: the entry as it stands
  std::string m_Line;         // reused
};

}  // namespace ravctl
