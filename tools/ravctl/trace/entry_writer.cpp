#include "ravctl/trace/entry_writer.h"

#include <algorithm>
#include <array>

#include "ravctl/answer/json.h"
#include "ravctl/base/error.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace {

struct PartRow {
  std::string_view key;
  std::string_view heading;
  size_t width;
};

// In the order of the parts' enumeration.
constexpr auto kPartRows = std::to_array<PartRow>({
    {"time", "TIME", kTimeLength},
    {"thread", "THREAD", 8},
    {"memory", "MEMORY KB", 10},
    {"tag", "TAG", 13},
    {"source", "SOURCE", 20},
    {"message", "MESSAGE", 0},
    {"text", "TEXT", 0},
});

Color ColorOf(std::string_view text) {
  const Gravity gravity = GravityOf(text);
  return gravity == Gravity::kError ? Color::kRed : gravity == Gravity::kWarning ? Color::kYellow : Color::kNone;
}

}  // namespace

EntryWriter::EntryWriter(Output& out, const Schema& schema, bool isFollowing)
    : m_Out(out), m_Schema(schema), m_IsFollowing(isFollowing) {
  ChooseParts(out.Options().columns);
}

void EntryWriter::ChooseParts(const std::string& columns) {
  const bool isOnTop = columns.starts_with('+');
  if (isOnTop) m_Parts = {Part::kTime, Part::kThread, Part::kMemory, Part::kTag, Part::kText};
  for (const std::string& wanted : SplitList(std::string_view(columns).substr(isOnTop ? 1 : 0))) {
    const auto row = std::ranges::find(kPartRows, wanted, &PartRow::key);
    if (row == kPartRows.end()) {
      throw CommandError(ExitCode::kUsage, "no such column", wanted,
                         "known: time, thread, memory, tag, source, message, text");
    }
    const auto part = static_cast<Part>(row - kPartRows.begin());
    if (std::ranges::find(m_Parts, part) == m_Parts.end()) m_Parts.push_back(part);
  }
  if (isOnTop) std::ranges::sort(m_Parts);
}

void EntryWriter::Begin() {
  if (!m_IsFollowing) m_Out.BeginStream(m_Schema);
  if (m_Parts.empty() || m_Out.IsJson() || m_Out.Options().noHeadings) return;
  std::string line;
  for (const Part part : m_Parts) {
    const PartRow& row = kPartRows[static_cast<size_t>(part)];
    line += row.heading;
    if (part != m_Parts.back()) line.append(std::max(row.width, row.heading.size()) - row.heading.size() + 1, ' ');
  }
  m_Out.Write(line + "\n");
}

void EntryWriter::Write(std::string_view whole) {
  if (m_Parts.empty() && !m_Out.IsJson()) {
    if (!m_Out.HasColors() && IsPrintable(whole.substr(0, whole.size() - 1))) {
      m_Out.Write(whole);
    } else {
      m_Line.clear();
      AppendPlain(whole);
      m_Out.Write(m_Line);
    }
    return;
  }
  const TraceEntry entry = ParseEntry(whole);
  if (m_Out.IsJson() && m_IsFollowing) {
    m_Out.Line(m_Schema, "",
               {{"time", entry.time},
                {"thread", entry.thread},
                {"memory_kb", entry.memoryKb ? Json(*entry.memoryKb) : Json()},
                {"tag", entry.tag},
                {"source", entry.source.empty() ? Json() : Json(entry.source)},
                {"text", entry.text}});
    return;
  }
  m_Line.clear();
  if (m_Out.IsJson()) {
    AppendJson(entry);
  } else {
    AppendColumns(entry);
  }
  m_Out.Write(m_Line);
}

void EntryWriter::AppendPlain(std::string_view whole) {
  const Color color = m_Out.HasColors() ? ColorOf(whole) : Color::kNone;
  if (color != Color::kNone) m_Line += Output::ColorSequence(color);
  for (size_t at = 0; at < whole.size();) {
    const size_t end = whole.find('\n', at);
    AppendPrintable(m_Line, whole.substr(at, end - at));
    // The colour ends before the line does, so that a terminal never keeps it.
    if (end + 1 == whole.size() && color != Color::kNone) m_Line += "\x1b[0m";
    m_Line += '\n';
    at = end + 1;
  }
}

void EntryWriter::AppendColumns(const TraceEntry& entry) {
  const Color color = m_Out.HasColors() ? ColorOf(entry.text) : Color::kNone;
  if (color != Color::kNone) m_Line += Output::ColorSequence(color);
  const std::string memory = entry.memoryKb ? std::to_string(*entry.memoryKb) : "-";
  for (const Part part : m_Parts) {
    const std::array<std::string_view, 7> values = {entry.time,   entry.thread,  memory,    entry.tag,
                                                    entry.source, entry.message, entry.text};
    const size_t start = m_Line.size();
    AppendPrintable(m_Line, values[static_cast<size_t>(part)]);
    const size_t width = kPartRows[static_cast<size_t>(part)].width;
    if (part == m_Parts.back()) break;
    const size_t length = m_Line.size() - start;
    m_Line.append(width > length ? width - length + 1 : 1, ' ');
  }
  if (color != Color::kNone) m_Line += "\x1b[0m";
  m_Line += '\n';
}

void EntryWriter::AppendJson(const TraceEntry& entry) {
  m_Line += "{\"time\":";
  AppendJsonString(m_Line, entry.time);
  m_Line += ",\"thread\":";
  AppendJsonString(m_Line, entry.thread);
  m_Line += ",\"memory_kb\":";
  m_Line += entry.memoryKb ? std::to_string(*entry.memoryKb) : "null";
  m_Line += ",\"tag\":";
  AppendJsonString(m_Line, entry.tag);
  m_Line += ",\"source\":";
  if (entry.source.empty()) {
    m_Line += "null";
  } else {
    AppendJsonString(m_Line, entry.source);
  }
  m_Line += ",\"text\":";
  AppendJsonString(m_Line, entry.text);
  m_Line += '}';
}

void EntryWriter::Gap() {
  if (!m_Out.IsJson()) m_Out.Write("--\n");
}

void EntryWriter::End() {
  if (!m_IsFollowing) m_Out.EndStream();
}

}  // namespace ravctl
