#include "ravctl/line/command.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <stdexcept>

namespace ravctl {

namespace {

std::string FooterOf(const std::vector<Example>& examples) {
  std::string text = examples.empty() ? "" : "Examples:";
  for (const Example& example : examples)
    text += "\n  " + example.command + "\n      " + example.meaning;
  return text;
}

// "0.1" and "86400", as a person writes them
std::string NumberText(double number) {
  char text[32];
  return {text, std::to_chars(text, text + sizeof text, number).ptr};
}

// Not a number when the text is none.
double NumberOf(const std::string& text) {
  double number = NAN;
  const char* end = text.data() + text.size();
  return std::from_chars(text.data(), end, number).ptr == end ? number : NAN;
}

}  // namespace

Check InRange(double low, double high) {
  return [low, high](const std::string& value) {
    const double number = NumberOf(value);
    if (number >= low && number <= high) return std::string();
    return "Value " + value + " not in range " + NumberText(low) + " to " + NumberText(high);
  };
}

Check Above(double limit) {
  return [limit](const std::string& value) {
    return NumberOf(value) > limit ? "" : "Value " + value + " not above " + NumberText(limit);
  };
}

Check NotNegative() {
  return [](const std::string& value) { return NumberOf(value) >= 0 ? "" : "Value " + value + " is negative"; };
}

Check OneOf(std::vector<std::string> values) {
  Check check = [values](const std::string& value) {
    if (std::ranges::find(values, value) != values.end()) return std::string();
    std::string list;
    for (const std::string& each : values)
      list += (list.empty() ? "" : ",") + each;
    return value + " not in {" + list + "}";
  };
  check.values = std::move(values);
  return check;
}

Command::Command(CommandText text, std::string footer) : m_Text(std::move(text)), m_Footer(std::move(footer)) {
  AddRequest("-h,--help", Ask::kHelp, "Show the help of the command");
}

Command::Command(const Command* above, CommandText text, RunFunction run)
    : m_Above(above), m_Text(std::move(text)), m_Footer(FooterOf(m_Text.examples)), m_Run(std::move(run)) {
  AddRequest("-h,--help", Ask::kHelp, "Show the help of the command");
}

Command& Command::Add(const CommandText& text, RunFunction run) {
  if (text.examples.empty()) throw std::logic_error("no example for the command " + text.name);
  return m_Below.emplace_back(this, text, std::move(run));
}

Command& Command::AddGroup(const std::string& name, const std::string& summary) {
  return m_Below.emplace_back(this, CommandText{name, summary}, nullptr);
}

Command& Command::Answers(std::vector<const Schema*> schemas) {
  m_Answers = std::move(schemas);
  return *this;
}

Option& Command::AddFlag(const std::string& names, bool* isSet, const std::string& meaning) {
  return m_Options.emplace_back(Option{names, isSet, meaning});
}

Option& Command::AddOption(const std::string& names, Target value, const std::string& type, const std::string& meaning,
                           Check check) {
  return m_Options.emplace_back(Option{names, value, meaning, type, std::move(check)});
}

Option& Command::AddWord(const std::string& name, Target value, const std::string& meaning, Check check) {
  return m_Options.emplace_back(Option{name, value, meaning, "", std::move(check)});
}

Option& Command::AddRequired(const std::string& name, Target value, const std::string& meaning, Check check) {
  return m_Options.emplace_back(Option{name, value, meaning, "", std::move(check), true});
}

Option& Command::AddRequest(const std::string& names, Ask what, const std::string& meaning) {
  return m_Options.emplace_back(Option{names, what, meaning});
}

std::vector<const Field*> Command::Columns() const {
  std::vector<const Field*> columns;
  for (const Schema* schema : m_Answers) {
    for (const Field& field : schema->Columns()) {
      if (field.cell.where != Where::kJson && std::ranges::count(columns, field.key, &Field::key) == 0)
        columns.push_back(&field);
    }
  }
  return columns;
}

std::string Command::FullName() const {
  if (m_Above == nullptr) return "";
  const std::string above = m_Above->FullName();
  return above.empty() ? Name() : above + " " + Name();
}

}  // namespace ravctl
