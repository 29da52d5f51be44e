// schema: the forms of the answers with --json, as JSON Schema.

#include "ravctl/commands/schema.h"

#include "ravctl/answer/json.h"
#include "ravctl/answer/schema.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace {

constexpr auto kSchemaFields = std::to_array<Field>({
    {"name", kText, "what ravctl schema takes, and the answer has in its key schema behind ravctl/"},
    {"version", kCount, "raised when a key changes its meaning or goes away"},
    {"commands", kTexts, "whose answers have that form"},
});
constexpr Schema kSchemaList = {"schema-list", 1, ListOf(kSchemaFields)};
constexpr Schema kSchema = {"schema", 1, kAnything};

constexpr auto kColumnFields = std::to_array<Field>({
    {"column", kText, "what -o calls it"},
    {"usual", kBoolean, "whether it is shown without -o"},
    {"meaning", kText, "what it tells"},
});
constexpr Schema kColumnList = {"columns", 1, ListOf(kColumnFields)};

void Collect(const Command& command, std::map<std::string, KnownSchema>& all) {
  for (const Schema* schema : command.Answers()) {
    KnownSchema& known = all[std::string(schema->name)];
    known.schema = schema;
    const std::string name = "ravctl " + command.FullName();
    if (known.commands.empty() || known.commands.back() != name) known.commands.push_back(name);
  }
  for (const Command& below : command.Below())
    Collect(below, all);
}

ExitCode List(const std::map<std::string, KnownSchema>& all, Output& out) {
  Table table(kSchemaList);
  for (const auto& [name, known] : all)
    table.Add({{"name", name}, {"version", known.schema->version}, {"commands", known.commands}});
  out.Print(kSchemaList, table);
  return ExitCode::kDone;
}

ExitCode Run(const Command& root, const std::string& wanted, Output& out) {
  const std::map<std::string, KnownSchema> all = AllSchemas(root);
  if (wanted.empty()) return List(all, out);
  const auto found = all.find(wanted.starts_with("ravctl/") ? wanted.substr(7) : wanted);
  if (found == all.end()) {
    std::vector<std::string> names;
    for (const auto& [name, known] : all)
      names.push_back(name);
    throw CommandError(ExitCode::kNothingOrDifferent, "no such schema", wanted,
                       DidYouMean(wanted, names, "see ravctl schema"));
  }
  const Json schema = found->second.AsJsonSchema();
  out.Print(kSchema, schema.dump(2) + '\n', schema);
  return ExitCode::kDone;
}

}  // namespace

Json KnownSchema::AsJsonSchema() const {
  std::string title;
  for (const std::string& command : commands)
    title += (title.empty() ? "" : ", ") + command;
  return JsonSchema(*schema, title);
}

std::map<std::string, KnownSchema> AllSchemas(const Command& root) {
  std::map<std::string, KnownSchema> all;
  Collect(root, all);
  all["error"] = {&kFailure, {"every command that fails"}};
  all["columns"] = {&kColumnList, {"ravctl ... --list-columns"}};
  return all;
}

ExitCode ListColumns(const Command& command, Output& out) {
  Table table(kColumnList);
  for (const Field* field : command.Columns())
    table.Add({{"column", field->key}, {"usual", field->cell.isUsual}, {"meaning", field->meaning}});
  if (table.Size() == 0) {
    throw CommandError(ExitCode::kUsage, "there are no columns to choose from", "ravctl " + command.FullName(),
                       "leave --list-columns out");
  }
  out.Print(kColumnList, table);
  return ExitCode::kDone;
}

void AddSchema(Command& root) {
  auto wanted = std::make_shared<std::string>();
  Command* top = &root;
  Command& schema = root.Add({"schema",
                              "Show the JSON Schema of the answers with --json, or list what schemas there are",
                              {{"ravctl schema", "one line each: its name, and whose answers it describes"},
                               {"ravctl schema pci", "for a validator"}}},
                             [top, wanted](Output& out) { return Run(*top, *wanted, out); });
  schema.Answers({&kSchemaList, &kSchema});
  schema.AddWord("NAME", wanted.get(), "Name of the schema; usually they are listed").offered = "schema -o name";
}

}  // namespace ravctl
