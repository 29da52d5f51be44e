#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ravctl/answer/json_name.h"

namespace ravctl {

enum class ColorMode { kAuto, kAlways, kNever };
enum class Color { kNone, kRed, kYellow, kGreen, kBlue, kCyan, kMagenta, kGray, kBold };

// What the global options say about the output.
struct OutputOptions {
  bool json = false;
  bool noHeadings = false;
  std::string columns;  // of -o: "name,size", or "+name" on top of the usual ones
  ColorMode color = ColorMode::kAuto;
};

// Names a form of JSON output: the file schemas/<name>.json describes it. A new key raises nothing; a key that
// changes its meaning or goes away raises the version.
struct Schema {
  std::string_view name;
  int version = 1;
};

struct Column {
  std::string key;      // what -o calls it, and the key of the row that it shows
  std::string heading;  // "SIZE"
  bool isRight = false;
  bool isUsual = true;  // shown without -o
  // How the value is written, when not as it stands (a missing or null value is always "-").
  std::function<std::string(const Json& value)> format = {};
  // Colours a cell; the text must tell the same without it.
  std::function<Color(const Json& row)> color = {};
};

// The cell of a row as it is shown, fit for a terminal.
std::string CellText(const Column& column, const Json& row);

// Rows of equal shape, one JSON object each. A row may hold keys beyond the columns: they reach JSON alone. With
// parents the rows form a tree, drawn in the first column that is shown. Strings from outside go in as they are.
class Table {
 public:
  explicit Table(std::vector<Column> columns);
  ~Table();
  Table(Table&& other) noexcept;
  Table& operator=(Table&& other) noexcept;

  // Returns the row's number, for use as a parent. A parent comes before its children.
  size_t Add(Json row, std::optional<size_t> parent = std::nullopt);

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

// Everything that a command says, to the standard output in one of three forms: a table on a terminal, aligned plain
// text in a pipe, one JSON object {schema, version, root, data, warnings}. Warnings go to the standard error at once,
// and into the JSON object as well. One thread.
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
