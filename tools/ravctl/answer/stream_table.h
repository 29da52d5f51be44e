#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ravctl/answer/output.h"

namespace ravctl {

// Columns that a terminal shows the text in; a text that is not fit for one counts its bytes.
size_t DisplayWidth(std::string_view text);
// The text with blanks up to that width, in front of it when isRight is set. A longer text stays whole.
std::string Padded(std::string_view text, size_t width, bool isRight);

// A table whose rows come one by one: a heading, repeated before it scrolls off a terminal, and aligned columns; with
// --json an object a row. -o chooses columns as in other tables.
class StreamTable {
 public:
  // Throws CommandError for a column of -o that is none.
  StreamTable(Output& out, Schema schema, std::vector<Column> columns);

  // The values of the row by their columns' keys; data is what JSON says.
  void Add(const Json& row, const Json& data);
  void Add(const Json& row) { Add(row, row); }

 private:
  // Appends the cell; the last one of a line needs no blanks behind it.
  void AppendCell(std::string& line, size_t number, const std::string& text, Color color) const;
  std::string Heading() const;
  std::string Csv(const std::function<std::string(const Column&)>& cellOf) const;

  Output& m_Out;
  Schema m_Schema;
  std::vector<Column> m_Columns;  // those that are shown
  size_t m_Rows = 0;
};

}  // namespace ravctl
