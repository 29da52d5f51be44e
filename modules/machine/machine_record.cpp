#include "machine/machine_record.h"

#include <algorithm>
#include <array>
#include <map>

namespace {

constexpr size_t kMaxRecords = 8192;

// Kinds and fields that come and go without anything having changed.
constexpr std::array<std::string_view, 2> kPassingKinds = {"scan", "volume"};

void AppendEscaped(std::string& line, std::string_view text) {
  for (const char letter : text) {
    switch (letter) {
      case '\\':
        line += "\\\\";
        break;
      case '\t':
        line += "\\t";
        break;
      case '\n':
        line += "\\n";
        break;
      default:
        line += letter;
    }
  }
}

std::string Unescape(std::string_view text) {
  std::string plain;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      plain += text[i];
      continue;
    }
    const char letter = text[++i];
    plain += letter == 't' ? '\t' : letter == 'n' ? '\n' : letter;
  }
  return plain;
}

// The text up to the separator, which is taken away with it.
std::string_view Next(std::string_view& text, char separator) {
  const size_t end = std::min(text.find(separator), text.size());
  const std::string_view piece = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return piece;
}

bool ParseLine(std::string_view line, MachineRecord& record) {
  record.kind = Next(line, '\t');
  if (record.kind.empty() || line.empty()) return false;
  record.key = Unescape(Next(line, '\t'));
  while (!line.empty()) {
    const std::string_view field = Next(line, '\t');
    const size_t equals = field.find('=');
    if (equals == std::string_view::npos) return false;
    record.fields.emplace_back(field.substr(0, equals), Unescape(field.substr(equals + 1)));
  }
  return true;
}

std::map<std::pair<std::string, std::string>, const MachineRecord*> Index(const MachineRecords& records) {
  std::map<std::pair<std::string, std::string>, const MachineRecord*> index;
  for (const MachineRecord& record : records) {
    if (std::ranges::find(kPassingKinds, record.kind) == kPassingKinds.end())
      index.emplace(std::pair(record.kind, record.key), &record);
  }
  return index;
}

std::string NameOf(const MachineRecord& record) {
  return record.Get("device").empty() ? record.key : record.Get("device");
}

void CompareFields(const MachineRecord& before, const MachineRecord& after, std::vector<MachineChange>& changes) {
  const auto add = [&](const std::string& name) {
    if (before.Get(name) != after.Get(name))
      changes.push_back({MachineChange::kChanged, after.kind, after.key, NameOf(after), after.Get("slot"), name,
                         before.Get(name), after.Get(name)});
  };
  for (const auto& [name, value] : before.fields)
    add(name);
  for (const auto& [name, value] : after.fields)
    if (before.Get(name).empty()) add(name);
}

}  // namespace

MachineRecord& MachineRecord::Add(const char* name, const std::string& value) {
  if (!value.empty()) fields.emplace_back(name, value);
  return *this;
}

const std::string& MachineRecord::Get(std::string_view name) const {
  static const std::string none;
  const auto field = std::ranges::find(fields, name, &std::pair<std::string, std::string>::first);
  return field == fields.end() ? none : field->second;
}

std::string ToText(const MachineRecords& records) {
  std::string text;
  for (const MachineRecord& record : records) {
    text += record.kind + '\t';
    AppendEscaped(text, record.key);
    for (const auto& [name, value] : record.fields) {
      text += '\t' + name + '=';
      AppendEscaped(text, value);
    }
    text += '\n';
  }
  return text.append(kEndLine);
}

bool ParseRecords(std::string_view text, MachineRecords& records) {
  if (!text.ends_with(kEndLine)) return false;
  text.remove_suffix(kEndLine.size());
  MachineRecords found;
  while (!text.empty() && found.size() < kMaxRecords) {
    MachineRecord record;
    if (ParseLine(Next(text, '\n'), record)) found.push_back(std::move(record));
  }
  records = std::move(found);
  return true;
}

const char* ToText(MachineChange::Kind change) {
  constexpr std::array kNames = {"added", "removed", "changed"};
  return kNames[change];
}

std::vector<MachineChange> CompareMachines(const MachineRecords& before, const MachineRecords& after) {
  const auto old = Index(before);
  const auto now = Index(after);
  std::vector<MachineChange> changes;
  for (const auto& [id, record] : old) {
    const auto same = now.find(id);
    if (same == now.end())
      changes.push_back(
          {MachineChange::kRemoved, id.first, id.second, NameOf(*record), record->Get("slot"), "", "", ""});
    else
      CompareFields(*record, *same->second, changes);
  }
  for (const auto& [id, record] : now)
    if (!old.contains(id))
      changes.push_back({MachineChange::kAdded, id.first, id.second, NameOf(*record), record->Get("slot"), "", "", ""});
  return changes;
}
