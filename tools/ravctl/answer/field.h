#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "ravctl/answer/json_name.h"

// What answers hold, as data: one table of fields a record. The columns of -o, --list-columns, the JSON Schema and the
// columns in the manual page are made from it. A new key is a row of its record's table:
//
//   constexpr auto kThingFields = std::to_array<Field>({
//       {"name", kText, "what it is called"},
//       {"bytes", kCount, "how large it is", {.heading = "SIZE", .format = SizeText}},
//       {"owner", kTextOrNull, "whose it is", kOnRequest},
//   });
//   constexpr Schema kThingList = {"thing-list", 1, ListOf(kThingFields)};
//
// The compiler makes them all; nothing is done at start.
namespace ravctl {

struct Field;

// The table of a record, lent by whoever defines it.
class Fields {
 public:
  constexpr Fields() = default;
  template <size_t kNumber>
  constexpr Fields(const std::array<Field, kNumber>& rows) : m_Begin(rows.data()), m_End(rows.data() + kNumber) {}
  template <size_t kNumber>
  Fields(const std::array<Field, kNumber>&& rows) = delete;

  constexpr const Field* begin() const { return m_Begin; }
  constexpr const Field* end() const { return m_End; }
  constexpr bool IsEmpty() const { return m_Begin == m_End; }

 private:
  const Field* m_Begin = nullptr;
  const Field* m_End = nullptr;
};

// What values there are. "Text" is a JSON string.
struct Type {
  enum class Kind { kText, kCount, kInteger, kBoolean, kRecord, kAnything, kNothing };

  Kind kind = Kind::kText;
  bool isList = false;
  bool canBeNull = false;
  bool isOptional = false;        // the key may be missing
  std::string_view pattern = {};  // a regular expression (ECMAScript) that the text matches
  std::string_view choices = {};  // "up|down": there are no others
  Fields fields = {};             // of a record
};

constexpr Type OrNull(Type type) {
  type.canBeNull = true;
  return type;
}
constexpr Type Optional(Type type) {
  type.isOptional = true;
  return type;
}
constexpr Type ListOf(Type type) {
  type.isList = true;
  return type;
}
constexpr Type Record(Fields fields) {
  return {.kind = Type::Kind::kRecord, .fields = fields};
}
constexpr Type ListOf(Fields fields) {
  return ListOf(Record(fields));
}
constexpr Type Choice(std::string_view choices) {
  return {.choices = choices};
}
constexpr Type Like(std::string_view pattern) {
  return {.pattern = pattern};
}

inline constexpr Type kText;
inline constexpr Type kTextOrNull = OrNull(kText);
inline constexpr Type kTexts = ListOf(kText);
inline constexpr Type kCount = {.kind = Type::Kind::kCount};  // not negative
inline constexpr Type kCountOrNull = OrNull(kCount);
inline constexpr Type kInteger = {.kind = Type::Kind::kInteger};
inline constexpr Type kBoolean = {.kind = Type::Kind::kBoolean};
inline constexpr Type kNothing = {.kind = Type::Kind::kNothing};  // null
inline constexpr Type kAnything = {.kind = Type::Kind::kAnything};
// Local time: "2026-11-24 17:05:33", of trace entries "2026-11-24 17:05:33.123".
inline constexpr Type kTime = Like(R"(^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}(\.[0-9]{3})?$)");
inline constexpr Type kTimeOrNull = OrNull(kTime);

enum class Color { kNone, kRed, kYellow, kGreen, kBlue, kCyan, kMagenta, kGray, kBold };

enum class Where { kTableAndJson, kTable, kJson };

// How a table shows the values of a field. Counts stand at the right of their column, the rest at the left.
struct Cell {
  std::string_view heading = {};  // when it is not the key in capitals: "mount_point" => "MOUNT POINT"
  bool isUsual = true;            // shown without -o
  // How the value is written, when not as it stands (a missing or null value is always "-").
  std::string (*format)(const Json& value) = nullptr;
  // Colours a cell; the text must tell the same without it.
  Color (*color)(const Json& value) = nullptr;
  size_t width = 0;     // of its texts as a rule, in a table whose rows come one by one
  bool isWord = false;  // a count whose format makes words of it: at the left
  Where where = Where::kTableAndJson;
};

inline constexpr Cell kOnRequest = {.isUsual = false};
inline constexpr Cell kInJson = {.where = Where::kJson};

inline constexpr std::string_view kAnyKey = "*";  // of a field: what every other key of the record holds

struct Field {
  std::string_view key;  // in JSON, and for -o
  Type type;
  std::string_view meaning;  // a phrase: "bytes that were received"
  Cell cell = {};
};

// The form of an answer. A new key raises nothing; a key that changes its meaning or goes away raises the version.
struct Schema {
  std::string_view name;  // "trace-list": the answer calls it "ravctl/trace-list"
  int version = 1;
  Type data = {};
  Fields shown = {};    // the rows of its table, when they are not the records of data
  bool isFile = false;  // the keys of data stand beside schema and version: a file, or what is no answer

  // What -o chooses from; empty when the answer is no table.
  constexpr Fields Columns() const { return shown.IsEmpty() && data.isList ? data.fields : shown; }
};

}  // namespace ravctl
