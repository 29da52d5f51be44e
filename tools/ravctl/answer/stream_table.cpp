#include "ravctl/answer/stream_table.h"

#include "ravctl/answer/json.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <cwchar>

namespace ravctl {

namespace {

constexpr size_t kRowsAHeading = 20;

}  // namespace

size_t DisplayWidth(std::string_view text) {
  std::mbstate_t state{};
  size_t width = 0;
  while (!text.empty()) {
    wchar_t character = 0;
    const size_t length = std::mbrtowc(&character, text.data(), text.size(), &state);
    const bool isCharacter = length > 0 && length <= text.size();
    const int columns = isCharacter ? ::wcwidth(character) : 1;
    width += columns < 0 ? 1U : static_cast<size_t>(columns);
    text.remove_prefix(isCharacter ? length : 1);
    if (!isCharacter) state = {};
  }
  return width;
}

std::string Padded(std::string_view text, size_t width, bool isRight) {
  const size_t shown = DisplayWidth(text);
  const std::string blanks(shown < width ? width - shown : 0, ' ');
  return isRight ? blanks + std::string(text) : std::string(text) + blanks;
}

StreamTable::StreamTable(Output& out, Schema schema, std::vector<WideColumn> columns) : m_Out(out), m_Schema(schema) {
  std::vector<Column> known;
  for (const WideColumn& wide : columns)
    known.push_back(wide.column);
  for (const size_t number : out.ChosenColumns(known)) {
    m_Columns.push_back(columns[number]);
    m_Columns.back().width = std::max(columns[number].width, DisplayWidth(columns[number].column.heading));
  }
}

void StreamTable::AppendCell(std::string& line, size_t number, const std::string& text, Color color) const {
  const WideColumn& wide = m_Columns[number];
  const bool isLast = number + 1 == m_Columns.size();
  const std::string cell = isLast && !wide.column.isRight ? text : Padded(text, wide.width, wide.column.isRight);
  line += (number == 0 ? "" : " ") + m_Out.Colored(color, cell);
}

std::string StreamTable::Heading() const {
  std::string line;
  for (size_t number = 0; number < m_Columns.size(); ++number)
    AppendCell(line, number, m_Columns[number].column.heading, Color::kNone);
  return line + '\n';
}

void StreamTable::Add(const Json& row, const Json& data) {
  std::string line;
  if (!m_Out.IsJson()) {
    const bool hasHeading = m_Rows % kRowsAHeading == 0 && (m_Rows == 0 || m_Out.IsTerminal());
    if (hasHeading && !m_Out.Options().noHeadings) line = Heading();
    for (size_t number = 0; number < m_Columns.size(); ++number) {
      const Column& column = m_Columns[number].column;
      AppendCell(line, number, CellText(column, row), column.color ? column.color(row) : Color::kNone);
    }
  }
  ++m_Rows;
  m_Out.Line(m_Schema, line, data);
}

}  // namespace ravctl
