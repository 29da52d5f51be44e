#include "ravctl/json_schema.h"

#include <algorithm>
#include <regex>

using Json = nlohmann::json;

namespace {

bool IsOfType(const Json& value, const std::string& type) {
  if (type == "integer") return value.is_number_integer();
  if (type == "number") return value.is_number();
  return type == value.type_name();
}

bool IsOfOneType(const Json& value, const Json& types) {
  if (types.is_string()) return IsOfType(value, types);
  return std::ranges::any_of(types, [&value](const Json& type) { return IsOfType(value, type); });
}

std::string Check(const Json& value, const Json& schema, const std::string& place);

std::string CheckMembers(const Json& value, const Json& schema, const std::string& place) {
  if (!value.is_object()) return "";
  const Json properties = schema.value("properties", Json::object());
  const Json others = schema.value("additionalProperties", Json(true));
  for (const auto& [key, member] : value.items()) {
    const Json rule = properties.contains(key) ? properties[key] : others;
    if (rule == false) return place + "/" + key + ": no such key is described";
    const std::string fault = rule.is_object() ? Check(member, rule, place + "/" + key) : "";
    if (!fault.empty()) return fault;
  }
  return "";
}

std::string Check(const Json& value, const Json& schema, const std::string& place) {
  for (const auto& [keyword, rule] : schema.items()) {
    std::string fault;
    const auto expect = [&fault, &value, &place, &rule = rule](bool isSo, const char* what) {
      if (!isSo) fault = place + ": " + value.dump() + what + rule.dump();
    };
    if (keyword == "type") {
      expect(IsOfOneType(value, rule), " is not of type ");
    } else if (keyword == "const") {
      expect(value == rule, " is not ");
    } else if (keyword == "enum") {
      expect(std::ranges::find(rule, value) != rule.end(), " is not in the list ");
    } else if (keyword == "minimum") {
      expect(!value.is_number() || value >= rule, " is below ");
    } else if (keyword == "pattern") {
      expect(!value.is_string() || std::regex_search(value.get<std::string>(), std::regex(rule.get<std::string>())),
             " does not match ");
    } else if (keyword == "required") {
      for (const Json& key : rule)
        if (value.is_object() && !value.contains(key)) fault = place + ": lacks " + key.dump();
    } else if (keyword == "items") {
      for (size_t index = 0; value.is_array() && index < value.size() && fault.empty(); ++index)
        fault = Check(value[index], rule, place + "/" + std::to_string(index));
    } else if (keyword == "properties" || keyword == "additionalProperties") {
      fault = CheckMembers(value, schema, place);
    } else if (keyword != "$schema" && keyword != "title" && keyword != "description") {
      fault = "the schema holds the unknown keyword " + keyword;
    }
    if (!fault.empty()) return fault;
  }
  return "";
}

}  // namespace

std::string SchemaFault(const Json& value, const Json& schema) {
  return Check(value, schema, "");
}
