#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ravctl/answer/field.h"
#include "ravctl/answer/json_name.h"

namespace ravctl {

enum class ColorMode { kAuto, kAlways, kNever };

// What the global options say about the output.
struct OutputOptions {
  bool json = false;
  bool csv = false;
  bool noHeadings = false;
  std::string columns;  // of -o: "name,size", or "+name" on top of the usual ones
  ColorMode color = ColorMode::kAuto;
};

struct Column {
  std::string key;      // what -o calls it, and the key of the row that it shows
  std::string heading;  // "SIZE"
  bool isRight = false;
  bool isUsual = true;  // shown without -o
  // How the value is written, when not as it stands (a missing or null value is always "-").
  std::function<std::string(const Json& value)> format = {};
  // Colours a cell; the text must tell the same without it.
  std::function<Color(const Json& value)> color = {};
  size_t width = 0;  // of its texts as a rule, in a table whose rows come one by one
};

std::vector<Column> ColumnsOf(Fields fields);

// The cell of a row as it is shown, fit for a terminal.
std::string CellText(const Column& column, const Json& row);
Color CellColor(const Column& column, const Json& row);

// A line of CSV (RFC 4180) without its end, whose cells are the values as they stand: nothing for one that is missing
// or null.
std::string CsvCell(const Column& column, const Json& row);
std::string CsvLine(const std::vector<std::string>& cells);

// Rows of equal shape, one JSON object each. A row may hold keys beyond the columns: they reach JSON alone. With
// parents the rows form a tree, drawn in the first column that is shown. Strings from outside go in as they are.
class Table {
 public:
  explicit Table(std::vector<Column> columns);
  explicit Table(Fields fields) : Table(ColumnsOf(fields)) {}
  explicit Table(const Schema& schema) : Table(schema.Columns()) {}
  ~Table();
  Table(Table&& other) noexcept;
  Table& operator=(Table&& other) noexcept;

  // Returns the row's number, for use as a parent. A parent comes before its children.
  size_t Add(Json row, std::optional<size_t> parent = std::nullopt);

  // Whether the column is shown without -o, where that depends on the answer.
  void SetUsual(std::string_view key, bool isUsual);

  const std::vector<Column>& Columns() const { return m_Columns; }
  size_t Size() const;
  bool IsTree() const { return m_IsTree; }
  const Json& Row(size_t index) const;
  std::optional<size_t> Parent(size_t index) const;
  // The rows as an array of objects, in order.
  Json ToJson() const;

 private:
  struct TableRow;

  std::vector<Column> m_Columns;
  std::vector<TableRow> m_Rows;
  bool m_IsTree = false;
};

// Everything that a command says, to the standard output in one of four forms: a table on a terminal, aligned plain
// text in a pipe, the table as CSV, one JSON object {schema, version, root, data, warnings}. Warnings go to the
// standard error at once, and into the JSON object as well. One thread.
//
// A command calls exactly one of these families:
//   Print           once, with everything
//   Line            for what follows or watches: a line of text, or with --json a whole JSON object a line (JSON Lines)
//   BeginStream, Write..., EndStream   for output too large to hold, such as a trace
// A name of -o that is none of a table's columns is a CommandError in every form.
class Output {
 public:
  explicit Output(OutputOptions options);
  // What was written is flushed; who wants to know of an error flushes before.
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  bool IsJson() const { return m_Options.json; }
  bool IsCsv() const { return m_Options.csv; }
  bool IsTerminal() const { return m_IsTerminal; }
  bool HasColors() const { return m_HasColors; }
  const OutputOptions& Options() const { return m_Options; }

  // What the answers are about: "/" or the tree that stands in for it.
  void SetRoot(std::string root) { m_Root = std::move(root); }

  // The table; in JSON its rows as an array.
  void Print(const Schema& schema, const Table& table);
  // The table as text, data in JSON; for answers whose JSON form is richer than rows.
  void Print(const Schema& schema, const Table& table, const Json& data);
  // Plain text in both text forms. It is printed as it is: pass outside texts through Printable.
  void Print(const Schema& schema, const std::string& text, const Json& data);
  // One line of a command that goes on; flushed.
  void Line(const Schema& schema, std::string_view text, const Json& data);

  // Large output. With --json the envelope is opened here, Write takes one element of the data array after the other,
  // and EndStream adds the warnings; as text, Write takes the text as it is.
  void BeginStream(const Schema& schema);
  void Write(std::string_view textOrElement);
  void EndStream();

  // A failure in the place of the answer: with --json {"schema": "ravctl/error", ..., "data": null, "error": {"code",
  // "message"}}, in the other forms nothing.
  void PrintError(int code, const std::string& message);

  void Flush();
  // Whether nothing more can be written, for the reader went away (a closed pipe) or for an error: the command may
  // stop.
  bool IsClosed() const { return m_IsClosed; }
  // The number of that error, 0 when there was none; that a reader went away is none.
  int WriteError() const { return m_WriteError; }

  // what, where, toDo as in CommandError; where and toDo may be empty.
  void Warn(std::string_view what, std::string_view where = {}, std::string_view toDo = {});
  size_t Warnings() const { return m_Warnings.size(); }

  // The columns that -o chose, or the usual ones, by their numbers. Throws CommandError for a name that is none.
  std::vector<size_t> ChosenColumns(const std::vector<Column>& columns) const;

  // The text in that colour, or as it is when there are no colours.
  std::string Colored(Color color, std::string_view text) const;
  static const char* ColorSequence(Color color);

 private:
  struct Warning {
    std::string what, where, toDo;
  };

  Json Envelope(const Schema& schema) const;
  Json WarningsAsJson() const;
  void PrintTable(const Table& table, const std::vector<size_t>& chosen);
  void PrintCsv(const Table& table, const std::vector<size_t>& chosen);

  OutputOptions m_Options;
  std::string m_Root = "/";
  std::vector<Warning> m_Warnings;
  std::string m_Buffer;
  bool m_IsTerminal;
  bool m_HasColors;
  bool m_IsFirstElement = true;
  bool m_IsClosed = false;
  int m_WriteError = 0;
};

// Shows on a terminal how far a long piece of work is: "reading 43 %" on the standard error, overwritten and removed at
// the end. Nothing is shown elsewhere, nor in the first half second.
class Progress {
 public:
  Progress(std::string what, unsigned long long total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Update(unsigned long long done);

 private:
  std::string m_What;
  unsigned long long m_Total;
  long long m_StartMs;
  int m_Shown = -1;
  bool m_IsTerminal;
};

}  // namespace ravctl
