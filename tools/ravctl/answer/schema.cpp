#include "ravctl/answer/schema.h"

#include <algorithm>

#include "ravctl/answer/json.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace {

using Kind = Type::Kind;

constexpr auto kWarningFields = std::to_array<Field>({
    {"what", kText, "what is not as it should be"},
    {"where", kText, "the file, device or option that it is about; may be empty"},
    {"todo", kText, "what helps; may be empty"},
});

constexpr Field kRoot = {"root", kText, "/ for this machine, else the tree that stands in for one"};
constexpr Field kWarnings = {"warnings", ListOf(kWarningFields), "what was told on the standard error as well"};

constexpr auto kErrorFields = std::to_array<Field>({
    {"code", kCount, "the exit status"},
    {"message", kText, "what the standard error says, without the name of the program"},
});
constexpr auto kFailureFields = std::to_array<Field>({
    kRoot,
    {"data", kNothing, "nothing"},
    {"error", Record(kErrorFields), "why"},
    kWarnings,
});

const char* NameOf(Kind kind) {
  return kind == Kind::kText      ? "string"
         : kind == Kind::kBoolean ? "boolean"
         : kind == Kind::kNothing ? "null"
                                  : "integer";
}

Json ValueSchema(const Type& type);

Json RecordSchema(Fields fields) {
  Json required = Json::array();
  Json properties = Json::object();
  Json others = false;
  for (const Field& field : fields) {
    if (field.cell.where == Where::kTable) continue;
    Json value = ValueSchema(field.type);
    value["description"] = field.meaning;
    const bool isAnyKey = field.key == kAnyKey;
    (isAnyKey ? others : properties[std::string(field.key)]) = std::move(value);
    if (!field.type.isOptional && !isAnyKey) required.push_back(field.key);
  }
  return {{"type", "object"}, {"required", required}, {"additionalProperties", others}, {"properties", properties}};
}

Json ChoiceSchema(const Type& type) {
  Json choices = Json::array();
  for (const std::string& choice : SplitList(type.choices, '|'))
    choices.push_back(type.kind == Kind::kText ? Json(choice) : Json(std::stoi(choice)));
  if (type.canBeNull) choices.push_back(nullptr);
  return {{"enum", choices}};
}

Json ScalarSchema(const Type& type) {
  if (!type.choices.empty()) return ChoiceSchema(type);
  Json schema = {{"type", NameOf(type.kind)}};
  if (type.canBeNull) schema["type"] = {NameOf(type.kind), "null"};
  if (type.kind == Kind::kCount) schema["minimum"] = 0;
  if (!type.pattern.empty()) schema["pattern"] = type.pattern;
  return schema;
}

Json ValueSchema(const Type& type) {
  if (type.kind == Kind::kAnything) return Json::object();
  if (!type.isList) return type.kind == Kind::kRecord ? RecordSchema(type.fields) : ScalarSchema(type);
  Type element = type;
  element.isList = element.canBeNull = false;
  Json kind = "array";
  if (type.canBeNull) kind = {"array", "null"};
  return {{"type", std::move(kind)}, {"items", ValueSchema(element)}};
}

bool CompleteRecord(Json& value, Fields fields) {
  if (!value.is_object()) return false;
  return std::all_of(fields.begin(), fields.end(), [&value](const Field& field) {
    if (field.cell.where == Where::kTable) return true;
    if (field.key == kAnyKey) {
      return std::all_of(value.begin(), value.end(), [&field](Json& each) { return Complete(each, field.type); });
    }
    const std::string key(field.key);
    if (!value.contains(key) && field.type.isOptional) return true;
    if (!value.contains(key) && field.type.isList) value[key] = Json::array();
    return Complete(value[key], field.type);
  });
}

// In front of the properties, with their names among those that are required.
void AddConstants(const Schema& schema, Json& object) {
  Json properties = {{"schema", {{"const", "ravctl/" + std::string(schema.name)}}},
                     {"version", {{"const", schema.version}}}};
  Json required = {"schema", "version"};
  properties.update(object["properties"]);
  required.insert(required.end(), object["required"].begin(), object["required"].end());
  object["properties"] = std::move(properties);
  object["required"] = std::move(required);
}

}  // namespace

constexpr Schema kFailure = {.name = "error", .data = Record(kFailureFields), .isFile = true};

Json JsonSchema(const Schema& schema, const std::string& title) {
  const auto answer = std::to_array<Field>({kRoot, {"data", schema.data, "the answer"}, kWarnings});
  Json object = RecordSchema(schema.isFile ? schema.data.fields : Fields(answer));
  AddConstants(schema, object);
  Json whole = {{"$schema", "https://json-schema.org/draft/2020-12/schema"}, {"title", title}};
  whole.update(object);
  return whole;
}

bool Complete(Json& value, const Type& type) {
  if (value.is_null()) return type.canBeNull || type.kind == Kind::kNothing || type.kind == Kind::kAnything;
  if (type.isList) {
    Type element = type;
    element.isList = element.canBeNull = false;
    return value.is_array() &&
           std::all_of(value.begin(), value.end(), [&element](Json& each) { return Complete(each, element); });
  }
  switch (type.kind) {
    case Kind::kText:
      return value.is_string();
    case Kind::kCount:
      return value.is_number_unsigned();
    case Kind::kInteger:
      return value.is_number_integer();
    case Kind::kBoolean:
      return value.is_boolean();
    case Kind::kRecord:
      return CompleteRecord(value, type.fields);
    case Kind::kAnything:
      return true;
    case Kind::kNothing:
      break;
  }
  return false;
}

}  // namespace ravctl
