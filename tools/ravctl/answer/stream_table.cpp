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

StreamTable::StreamTable(Output& out, Schema schema, std::vector<Column> columns) : m_Out(out), m_Schema(schema) {
  for (const size_t number : out.ChosenColumns(columns)) {
    m_Columns.push_back(columns[number]);
    m_Columns.back().width = std::max(columns[number].width, DisplayWidth(columns[number].heading));
  }
}

void StreamTable::AppendCell(std::string& line, size_t number, const std::string& text, Color color) const {
  const Column& wide = m_Columns[number];
  const bool isLast = number + 1 == m_Columns.size();
  const std::string cell = isLast && !wide.isRight ? text : Padded(text, wide.width, wide.isRight);
  line += (number == 0 ? "" : " ") + m_Out.Colored(color, cell);
}

std::string StreamTable::Heading() const {
  std::string line;
  for (size_t number = 0; number < m_Columns.size(); ++number)
    AppendCell(line, number, m_Columns[number].heading, Color::kNone);
  return line + '\n';
}

std::string StreamTable::Csv(const std::function<std::string(const Column&)>& cellOf) const {
  std::vector<std::string> cells;
  std::ranges::transform(m_Columns, std::back_inserter(cells), cellOf);
  return CsvLine(cells) + '\r';
}

void StreamTable::Add(const Json& row, const Json& data) {
  std::string line;
  if (m_Out.IsCsv()) {
    if (m_Rows == 0 && !m_Out.Options().noHeadings) line = Csv([](const Column& column) { return column.key; }) + '\n';
    line += Csv([&row](const Column& column) { return CsvCell(column, row); });
  } else if (!m_Out.IsJson()) {
    const bool hasHeading = m_Rows % kRowsAHeading == 0 && (m_Rows == 0 || m_Out.IsTerminal());
    if (hasHeading && !m_Out.Options().noHeadings) line = Heading();
    for (size_t number = 0; number < m_Columns.size(); ++number) {
      const Column& column = m_Columns[number];
      AppendCell(line, number, CellText(column, row), CellColor(column, row));
    }
  }
  ++m_Rows;
  m_Out.Line(m_Schema, line, data);
}

}  // namespace ravctl
