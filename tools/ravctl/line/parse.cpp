#include "ravctl/line/parse.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "ravctl/line/help_text.h"

namespace ravctl {

namespace {

using Kind = ParsedLine::Kind;

// The library's option for that kind of target.
struct TargetAdder {
  CLI::App& app;
  const Option& row;

  CLI::Option* operator()(Ask ask) const {
    if (ask == Ask::kVersion) return app.set_version_flag(row.names, std::string(), row.meaning);
    if (ask == Ask::kColumns)
      return app.add_flag_callback(
          row.names, [] { throw CLI::CallForAllHelp(); }, row.meaning);
    return app.set_help_flag(row.names, row.meaning);
  }
  CLI::Option* operator()(bool* isSet) const { return app.add_flag(row.names, *isSet, row.meaning); }
  CLI::Option* operator()(std::vector<std::string>* list) const {
    CLI::Option* option = app.add_option(row.names, *list, row.meaning);
    // What follows the value of an option is a word of the command.
    return row.IsWord() ? option : option->expected(1)->take_all()->allow_extra_args(false);
  }
  CLI::Option* operator()(const std::function<void(const std::string&)>& take) const {
    return app.add_option_function<std::string>(row.names, take, row.meaning);
  }
  template <typename Value>
  CLI::Option* operator()(Value* value) const {
    return app.add_option(row.names, *value, row.meaning);
  }
};

void AddOptions(const Command& command, CLI::App& app) {
  for (const Option& row : command.Options()) {
    CLI::Option& option = *std::visit(TargetAdder{app, row}, row.target);
    if (!row.type.empty()) option.type_name(row.type);
    if (!row.implied.empty()) option.expected(0, 1)->default_str(row.implied);
    if (row.check) option.check(CLI::Validator([check = row.check](std::string& value) { return check(value); }, ""));
    if (row.isRequired) option.required();
    if (!row.excludes.empty()) option.excludes(app.get_option(row.excludes));
  }
}

void AddCommands(const Command& command, CLI::App& app) {
  app.require_subcommand(0, 1);  // one command a call; a missing one is reported by name
  app.footer(command.Footer());
  AddOptions(command, app);
  for (const Command& below : command.Below()) {
    CLI::App& added = *app.add_subcommand(below.Name(), below.Text().summary);
    added.fallthrough();
    AddCommands(below, added);
  }
}

const Command& Chosen(const Command& command, const CLI::App& app) {
  const std::vector<const CLI::App*> below = app.get_subcommands([](const CLI::App* each) { return each->parsed(); });
  if (below.empty()) return command;
  return Chosen(*std::ranges::find(command.Below(), below.front()->get_name(), &Command::Name), *below.front());
}

}  // namespace

ParsedLine ParseLine(const Command& root, int argc, char** argv) {
  CLI::App app(root.Text().summary, root.Name());
  AddCommands(root, app);
  const auto result = [&](Kind kind, const std::string& text = {}) {
    return ParsedLine{kind, &Chosen(root, app), text};
  };
  try {
    app.parse(argc, argv);
    return result(Kind::kCommand);
  } catch (const CLI::CallForHelp&) {
    return result(Kind::kHelp, Wrapped(app.help(), app.get_formatter()->get_column_width(), HelpWidth()));
  } catch (const CLI::CallForAllHelp&) {
    return result(Kind::kColumns);
  } catch (const CLI::CallForVersion&) {
    return result(Kind::kVersion);
  } catch (const CLI::ExtrasError&) {
    const std::vector<std::string> rest = app.remaining(true);
    return result(Kind::kUnknown, rest.empty() ? "" : rest.front());
  } catch (const CLI::ParseError& error) {
    return result(Kind::kFault, error.what());
  }
}

}  // namespace ravctl
