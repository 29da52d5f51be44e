#include "ravctl/answer/output.h"

#include <libsmartcols.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>

#include "ravctl/answer/json.h"
#include "ravctl/answer/schema.h"
#include "ravctl/base/error.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace {

constexpr size_t kBufferSize = 256 * 1024;
constexpr std::string_view kReset = "\x1b[0m";

bool WantsColors(ColorMode mode, bool isTerminal) {
  if (mode != ColorMode::kAuto) return mode == ColorMode::kAlways;
  const char* noColor = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  const bool isDumb = terminal != nullptr && std::string_view(terminal) == "dumb";
  return isTerminal && !isDumb && (noColor == nullptr || *noColor == '\0');
}

std::string CellText(const Json& value) {
  switch (value.type()) {
    case Json::value_t::null:
      return "-";
    case Json::value_t::string:
      return Printable(value.get_ref<const std::string&>());
    case Json::value_t::boolean:
      return value.get<bool>() ? "yes" : "no";
    case Json::value_t::array: {
      std::string joined;
      for (const Json& element : value)
        joined += (joined.empty() ? "" : ", ") + CellText(element);
      return joined.empty() ? "-" : joined;
    }
    default:
      return value.dump();
  }
}

long long NowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// "mount_point" => "MOUNT POINT"
std::string AsHeading(std::string_view key) {
  std::string heading;
  for (const char character : key)
    heading += character == '_' ? ' ' : static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
  return heading;
}

struct TableDeleter {
  void operator()(libscols_table* table) const { scols_unref_table(table); }
};

// JSON with the bytes that are no UTF-8 made visible, as in every other string.
std::string Dump(const Json& value) {
  try {
    return value.dump();
  } catch (const Json::type_error&) {
    Json copy = value;
    const std::function<void(Json&)> clean = [&clean](Json& part) {
      if (part.is_string()) part = ValidUtf8(part.get_ref<const std::string&>());
      if (part.is_structured()) std::for_each(part.begin(), part.end(), clean);
    };
    clean(copy);
    return copy.dump(-1, ' ', false, Json::error_handler_t::replace);
  }
}

// Where the system has no locale of UTF-8 at all, the library that draws does not end on such a character.
std::string Drawable(std::string text) {
  const auto isOther = [](char byte) { return (byte & 0x80) != 0; };
  if (MB_CUR_MAX == 1) std::ranges::replace_if(text, isOther, '?');
  return text;
}

}  // namespace

std::vector<Column> ColumnsOf(Fields fields) {
  std::vector<Column> columns;
  for (const auto& [key, type, meaning, cell] : fields) {
    if (cell.where == Where::kJson) continue;
    const bool isNumber = type.kind == Type::Kind::kCount || type.kind == Type::Kind::kInteger;
    columns.push_back({.key = std::string(key),
                       .heading = cell.heading.empty() ? AsHeading(key) : std::string(cell.heading),
                       .isRight = isNumber && !cell.isWord,
                       .isUsual = cell.isUsual,
                       .format = cell.format,
                       .color = cell.color,
                       .width = cell.width});
  }
  return columns;
}

std::string CellText(const Column& column, const Json& row) {
  const auto found = row.find(column.key);
  if (found == row.end() || found->is_null()) return "-";
  const std::string text = column.format ? Printable(column.format(*found)) : CellText(*found);
  return text.empty() ? "-" : text;
}

std::string CsvCell(const Column& column, const Json& row) {
  const auto found = row.find(column.key);
  return found == row.end() || found->is_null() ? "" : CellText(*found);
}

std::string CsvLine(const std::vector<std::string>& cells) {
  std::string line;
  for (const std::string& cell : cells) {
    if (&cell != &cells.front()) line += ',';
    if (cell.find_first_of(",\"\r\n") == std::string::npos) {
      line += cell;
      continue;
    }
    line += '"';
    for (const char character : cell)
      line += character == '"' ? std::string(2, '"') : std::string(1, character);
    line += '"';
  }
  return line;
}

Color CellColor(const Column& column, const Json& row) {
  const auto found = row.find(column.key);
  return !column.color || found == row.end() || found->is_null() ? Color::kNone : column.color(*found);
}

struct Table::TableRow {
  Json value;
  std::optional<size_t> parent;
};

Table::Table(std::vector<Column> columns) : m_Columns(std::move(columns)) {}
Table::~Table() = default;
Table::Table(Table&& other) noexcept = default;
Table& Table::operator=(Table&& other) noexcept = default;

void Table::SetUsual(std::string_view key, bool isUsual) {
  std::ranges::find(m_Columns, key, &Column::key)->isUsual = isUsual;
}

size_t Table::Size() const {
  return m_Rows.size();
}

const Json& Table::Row(size_t index) const {
  return m_Rows[index].value;
}

std::optional<size_t> Table::Parent(size_t index) const {
  return m_Rows[index].parent;
}

size_t Table::Add(Json row, std::optional<size_t> parent) {
  m_IsTree = m_IsTree || parent.has_value();
  m_Rows.push_back({std::move(row), parent});
  return m_Rows.size() - 1;
}

Json Table::ToJson() const {
  Json rows = Json::array();
  for (const TableRow& row : m_Rows)
    rows.push_back(row.value);
  return rows;
}

Output::Output(OutputOptions options)
    : m_Options(std::move(options)),
      m_IsTerminal(::isatty(STDOUT_FILENO) == 1),
      m_HasColors(!m_Options.json && WantsColors(m_Options.color, m_IsTerminal)) {
  m_Buffer.reserve(2 * kBufferSize);
}

Output::~Output() {
  Flush();
}

Json Output::Envelope(const Schema& schema) const {
  return {{"schema", "ravctl/" + std::string(schema.name)}, {"version", schema.version}, {"root", m_Root}};
}

Json Output::WarningsAsJson() const {
  Json warnings = Json::array();
  for (const Warning& warning : m_Warnings)
    warnings.push_back({{"what", warning.what}, {"where", warning.where}, {"todo", warning.toDo}});
  return warnings;
}

void Output::Print(const Schema& schema, const Table& table) {
  Print(schema, table, IsJson() ? table.ToJson() : Json());
}

void Output::Print(const Schema& schema, const Table& table, const Json& data) {
  const std::vector<size_t> chosen = ChosenColumns(table.Columns());
  if (IsJson()) {
    Print(schema, std::string(), data);
  } else {
    PrintTable(table, chosen);
  }
}

void Output::Print(const Schema& schema, const std::string& text, const Json& data) {
  if (!IsJson()) {
    Write(text);
    return;
  }
  Json object = Envelope(schema);
  object["data"] = data;
  object["warnings"] = WarningsAsJson();
  m_Buffer += Dump(object) + '\n';
}

void Output::Line(const Schema& schema, std::string_view text, const Json& data) {
  if (IsJson()) {
    Print(schema, std::string(), data);
    m_Warnings.clear();
  } else {
    m_Buffer += text;
    m_Buffer += '\n';
  }
  Flush();
}

void Output::BeginStream(const Schema& schema) {
  m_IsFirstElement = true;
  if (!IsJson()) return;
  m_Buffer += Dump(Envelope(schema));
  m_Buffer.back() = ',';
  m_Buffer += "\"data\":[";
}

void Output::Write(std::string_view textOrElement) {
  if (IsJson() && !std::exchange(m_IsFirstElement, false)) m_Buffer += ",\n";
  m_Buffer += textOrElement;
  if (m_Buffer.size() > kBufferSize) Flush();
}

void Output::EndStream() {
  if (!IsJson()) return;
  m_Buffer += "],\"warnings\":" + Dump(WarningsAsJson()) + "}\n";
}

void Output::PrintError(int code, const std::string& message) {
  if (!IsJson()) return;
  Json object = Envelope(kFailure);
  object["data"] = nullptr;
  object["error"] = {{"code", code}, {"message", message}};
  object["warnings"] = WarningsAsJson();
  m_Buffer += Dump(object) + '\n';
}

void Output::Flush() {
  for (size_t at = 0; at < m_Buffer.size() && !m_IsClosed;) {
    const ssize_t written = ::write(STDOUT_FILENO, m_Buffer.data() + at, m_Buffer.size() - at);
    if (written >= 0) {
      at += static_cast<size_t>(written);
    } else if (errno == EAGAIN) {  // whoever shares the terminal may have made it so
      pollfd file = {STDOUT_FILENO, POLLOUT, 0};
      ::poll(&file, 1, -1);
    } else if (errno != EINTR) {
      m_WriteError = errno == EPIPE ? 0 : errno;
      m_IsClosed = true;
    }
  }
  m_Buffer.clear();
}

void Output::Warn(std::string_view what, std::string_view where, std::string_view toDo) {
  m_Warnings.push_back({std::string(what), std::string(where), std::string(toDo)});
  Flush();
  std::fprintf(stderr, "ravctl: warning: %s\n", OneLine(what, where, toDo).c_str());
}

const char* Output::ColorSequence(Color color) {
  switch (color) {
    case Color::kRed:
      return "\x1b[31m";
    case Color::kYellow:
      return "\x1b[33m";
    case Color::kGreen:
      return "\x1b[32m";
    case Color::kBlue:
      return "\x1b[34m";
    case Color::kCyan:
      return "\x1b[36m";
    case Color::kMagenta:
      return "\x1b[35m";
    case Color::kGray:
      return "\x1b[90m";
    case Color::kBold:
      return "\x1b[1m";
    case Color::kNone:
      break;
  }
  return "";
}

std::string Output::Colored(Color color, std::string_view text) const {
  if (!m_HasColors || color == Color::kNone) return std::string(text);
  return ColorSequence(color) + std::string(text) + std::string(kReset);
}

std::vector<size_t> Output::ChosenColumns(const std::vector<Column>& columns) const {
  std::vector<size_t> chosen;
  const bool isOnTop = m_Options.columns.starts_with('+');
  if (m_Options.columns.empty() || isOnTop) {
    for (size_t index = 0; index < columns.size(); ++index) {
      if (columns[index].isUsual) chosen.push_back(index);
    }
  }
  std::vector<std::string> keys;
  for (const Column& column : columns)
    keys.push_back(column.key);
  for (const std::string& wanted : SplitList(std::string_view(m_Options.columns).substr(isOnTop ? 1 : 0))) {
    const auto found = std::ranges::find(keys, wanted);
    if (found == keys.end()) {
      std::string known;
      for (const std::string& key : keys)
        known += (known.empty() ? "known: " : ", ") + key;
      throw CommandError(ExitCode::kUsage, "no such column", wanted, DidYouMean(wanted, keys, known));
    }
    chosen.push_back(static_cast<size_t>(found - keys.begin()));
  }
  return chosen;
}

void Output::PrintCsv(const Table& table, const std::vector<size_t>& chosen) {
  std::vector<std::string> cells(chosen.size());
  const auto write = [&](const std::function<std::string(const Column&)>& cellOf) {
    std::ranges::transform(chosen, cells.begin(), [&](size_t index) { return cellOf(table.Columns()[index]); });
    Write(CsvLine(cells) + "\r\n");
  };
  if (!m_Options.noHeadings) write([](const Column& column) { return column.key; });
  for (size_t number = 0; number < table.Size(); ++number)
    write([&](const Column& column) { return CsvCell(column, table.Row(number)); });
}

void Output::PrintTable(const Table& table, const std::vector<size_t>& chosen) {
  if (IsCsv()) return PrintCsv(table, chosen);
  const std::unique_ptr<libscols_table, TableDeleter> lines(scols_new_table());
  if (lines == nullptr) throw std::bad_alloc();
  scols_table_enable_noencoding(lines.get(), 1);  // the texts are fit for a terminal already
  scols_table_enable_noheadings(lines.get(), m_Options.noHeadings ? 1 : 0);
  scols_table_enable_colors(lines.get(), m_HasColors ? 1 : 0);
  if (!m_IsTerminal) scols_table_set_termforce(lines.get(), SCOLS_TERMFORCE_NEVER);
  bool isFirst = true;
  for (const size_t index : chosen) {
    const Column& column = table.Columns()[index];
    int flags = column.isRight ? SCOLS_FL_RIGHT : 0;
    if (table.IsTree() && isFirst) flags = SCOLS_FL_TREE;
    // A cut value misleads: long texts wrap on a terminal, as the last column does.
    if (m_IsTerminal && index == chosen.back() && !isFirst) flags |= SCOLS_FL_WRAP;
    isFirst = false;
    scols_table_new_column(lines.get(), column.heading.c_str(), 0, flags);
  }
  std::vector<libscols_line*> made;
  for (size_t number = 0; number < table.Size(); ++number) {
    const std::optional<size_t> parent = table.Parent(number);
    libscols_line* line = scols_table_new_line(lines.get(), parent ? made[*parent] : nullptr);
    if (line == nullptr) throw std::bad_alloc();
    made.push_back(line);
    for (size_t cell = 0; cell < chosen.size(); ++cell) {
      const Column& column = table.Columns()[chosen[cell]];
      scols_line_set_data(line, cell, Drawable(CellText(column, table.Row(number))).c_str());
      const Color color = CellColor(column, table.Row(number));
      if (color != Color::kNone) scols_cell_set_color(scols_line_get_cell(line, cell), ColorSequence(color));
    }
  }
  if (table.Size() == 0) return;
  char* text = nullptr;
  if (scols_print_table_to_string(lines.get(), &text) != 0) throw std::runtime_error("the table cannot be drawn");
  const std::unique_ptr<char, decltype(&std::free)> owner(text, &std::free);
  Write(text);
  Write("\n");
}

Progress::Progress(std::string what, unsigned long long total)
    : m_What(std::move(what)), m_Total(total), m_StartMs(NowMs()), m_IsTerminal(::isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
  if (m_Shown >= 0) std::fprintf(stderr, "\r\x1b[K");
}

void Progress::Update(unsigned long long done) {
  if (!m_IsTerminal || m_Total == 0 || NowMs() - m_StartMs < 500) return;
  const int percent = static_cast<int>(std::min(done, m_Total) * 100 / m_Total);
  if (percent == m_Shown) return;
  m_Shown = percent;
  std::fprintf(stderr, "\r%s %d %%\x1b[K", m_What.c_str(), percent);
}

}  // namespace ravctl
