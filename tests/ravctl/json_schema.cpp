#include "ravctl/json_schema.h"

#include <algorithm>
#include <fstream>
#include <regex>

using Json = nlohmann::json;

namespace {

class Checker {
 public:
  explicit Checker(std::filesystem::path file) : m_File(std::move(file)), m_Root(Json::parse(std::ifstream(m_File))) {}

  std::string Check(const Json& value) const { return Check(value, m_Root, ""); }

 private:
  static bool IsOfType(const Json& value, const std::string& type) {
    if (type == "integer") return value.is_number_integer();
    if (type == "number") return value.is_number();
    return type == value.type_name();
  }

  static bool IsOfOneType(const Json& value, const Json& types) {
    if (types.is_string()) return IsOfType(value, types);
    return std::ranges::any_of(types, [&value](const Json& type) { return IsOfType(value, type); });
  }

  std::string Follow(const Json& value, const std::string& reference, const std::string& place) const {
    const size_t hash = reference.find('#');
    const Json::json_pointer pointer(reference.substr(hash + 1));
    if (hash == 0) return Check(value, m_Root.at(pointer), place);
    const Checker other(m_File.parent_path() / reference.substr(0, hash));
    return other.Check(value, other.m_Root.at(pointer), place);
  }

  std::string CheckMembers(const Json& value, const Json& schema, const std::string& place) const {
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

  std::string Check(const Json& value, const Json& schema, const std::string& place) const {
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
      } else if (keyword == "anyOf") {
        for (const Json& choice : rule) {
          fault = Check(value, choice, place);
          if (fault.empty()) break;
        }
      } else if (keyword == "$ref") {
        fault = Follow(value, rule, place);
      } else if (keyword != "$schema" && keyword != "$defs" && keyword != "title" && keyword != "description") {
        fault = "the schema holds the unknown keyword " + keyword;
      }
      if (!fault.empty()) return fault;
    }
    return "";
  }

  std::filesystem::path m_File;
  Json m_Root;
};

}  // namespace

std::string SchemaFault(const Json& value, const std::filesystem::path& schemaFile) {
  if (!std::filesystem::exists(schemaFile)) return "no such schema file: " + schemaFile.string();
  return Checker(schemaFile).Check(value);
}
