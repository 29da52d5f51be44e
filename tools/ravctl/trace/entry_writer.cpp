#include "ravctl/trace/entry_writer.h"

#include <algorithm>
#include <array>

#include "ravctl/answer/json.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace {

// By the number of the column.
using Values = std::array<std::string_view, 7>;

Values ValuesOf(const TraceEntry& entry, std::string_view memory) {
  return {entry.time, entry.thread, memory, entry.tag, entry.source, entry.message, entry.text};
}

Color ColorOf(std::string_view text) {
  const Gravity gravity = GravityOf(text);
  return gravity == Gravity::kError ? Color::kRed : gravity == Gravity::kWarning ? Color::kYellow : Color::kNone;
}

}  // namespace

EntryWriter::EntryWriter(Output& out, const Schema& schema, bool isFollowing)
    : m_Out(out), m_Schema(schema), m_IsFollowing(isFollowing) {
  const std::string& columns = out.Options().columns;
  if (!columns.empty() || out.IsCsv()) m_Parts = out.ChosenColumns(m_Columns);
  if (!columns.starts_with('+')) return;
  std::ranges::sort(m_Parts);
  m_Parts.erase(std::unique(m_Parts.begin(), m_Parts.end()), m_Parts.end());
}

void EntryWriter::Begin() {
  if (!m_IsFollowing) m_Out.BeginStream(m_Schema);
  if (m_Parts.empty() || m_Out.IsJson() || m_Out.Options().noHeadings) return;
  std::string line;
  std::vector<std::string> keys;
  for (const size_t part : m_Parts) {
    const Column& column = m_Columns[part];
    keys.push_back(column.key);
    line += column.heading;
    if (part != m_Parts.back())
      line.append(std::max(column.width, column.heading.size()) - column.heading.size() + 1, ' ');
  }
  m_Out.Write(m_Out.IsCsv() ? CsvLine(keys) + "\r\n" : line + "\n");
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
  } else if (m_Out.IsCsv()) {
    AppendCsv(entry);
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

void EntryWriter::AppendCsv(const TraceEntry& entry) {
  const std::string memory = entry.memoryKb ? std::to_string(*entry.memoryKb) : "";
  const Values values = ValuesOf(entry, memory);
  std::vector<std::string> cells;
  for (const size_t part : m_Parts)
    cells.push_back(Printable(values[part]));
  m_Line += CsvLine(cells) + "\r\n";
}

void EntryWriter::AppendColumns(const TraceEntry& entry) {
  const Color color = m_Out.HasColors() ? ColorOf(entry.text) : Color::kNone;
  if (color != Color::kNone) m_Line += Output::ColorSequence(color);
  const std::string memory = entry.memoryKb ? std::to_string(*entry.memoryKb) : "-";
  const Values values = ValuesOf(entry, memory);
  for (const size_t part : m_Parts) {
    const size_t start = m_Line.size();
    AppendPrintable(m_Line, values[part]);
    if (part == m_Parts.back()) break;
    const size_t length = m_Line.size() - start;
    const size_t width = m_Columns[part].width;
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
  if (!m_Out.IsJson() && !m_Out.IsCsv()) m_Out.Write("--\n");
}

void EntryWriter::End() {
  if (!m_IsFollowing) m_Out.EndStream();
}

}  // namespace ravctl
