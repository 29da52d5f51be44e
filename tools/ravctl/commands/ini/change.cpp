#include "ravctl/commands/ini/change.h"

#include <unistd.h>

#include <cerrno>
#include <optional>

#include "platform/ini_file.h"
#include "platform/ini_text.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/files.h"
#include "ravctl/base/text.h"
#include "ravctl/base/text_diff.h"
#include "ravctl/commands/ini/group.h"
#include "ravctl/ini/ini_scan.h"
#include "ravctl/line/command.h"

namespace ravctl {

namespace {

using Content = std::optional<std::string>;  // null: there is no file

bool Write(const IniChange& change, const std::string& path) {
  return CIniFile::WritePrivateProfileString(change.section.c_str(), change.key ? change.key->c_str() : nullptr,
                                             change.value ? change.value->c_str() : nullptr, path.c_str()) == 1;
}

// The value that a reader gets, or null. An empty value counts as one.
std::optional<std::string> ValueRead(const IniChange& change, std::string_view content) {
  for (const IniSection& section : ScanIni(content).sections) {
    if (!section.isRead || section.name != change.section) continue;
    for (const IniEntry& entry : section.entries) {
      if (entry.isRead && entry.key == change.key) return std::string(entry.value);
    }
  }
  return std::nullopt;
}

bool HasSection(const IniChange& change, std::string_view content) {
  const IniScan scan = ScanIni(content);
  return std::ranges::any_of(scan.sections, [&](const IniSection& section) { return section.name == change.section; });
}

// Whether section, key and value are such that a file can hold them.
void RequireWritable(const IniChange& change) {
  if (!change.value) return;
  std::string text;
  EditIniText(text, change.section, change.key->c_str(), change.value->c_str());
  const IniScan scan = ScanIni(text);
  if (scan.findings.empty() && scan.sections.size() == 1 && scan.sections[0].entries.size() == 1 &&
      ValueRead(change, text) == change.value) {
    return;
  }
  throw CommandError(ExitCode::kUsage, "a reader would not get this back", change.What() + "=" + *change.value,
                     "no line breaks, no ;, no blanks at the ends, no = or leading [ in a key, at most " +
                         std::to_string(kMaxIniLine) + " characters a line");
}

[[noreturn]] void FailHidden(const IniChange& change) {
  throw CommandError(ExitCode::kInputDamaged, "a reader finds it, but a writer does not", change.What(),
                     "ravctl ini check tells the line; mend it in an editor");
}

// What the library makes of the content, null when the edit finds nothing to delete.
Content Rehearse(const IniChange& change, const Content& old) {
  const char* const key = change.key ? change.key->c_str() : nullptr;
  std::string edited = change.value ? "" : *old;
  if (!change.value && !EditIniText(edited, change.section, key, nullptr)) {
    if (change.key ? ValueRead(change, *old).has_value() : HasSection(change, *old)) FailHidden(change);
    return std::nullopt;
  }
  const TemporaryDirectory directory;
  const std::string copy = directory.Path() + "/copy";
  if (old) WriteNewFile(copy, *old);
  Content content;
  if (Write(change, copy)) content = ReadFileIfThere(copy);
  if (!content) {
    throw CommandError(ExitCode::kInputMissing, "cannot edit the private copy", copy,
                       "let TMPDIR name a directory with space");
  }
  if (change.value && ValueRead(change, *content) != change.value) FailHidden(change);
  return content;
}

void WarnOfWhatIsLeft(const IniChange& change, const std::string& content, Output& out) {
  if (change.value) return;
  if (!change.key && HasSection(change, content)) {
    out.Warn("a further section of that name is read now", change.What(), "delete it as well");
  } else if (const auto value = change.key ? ValueRead(change, content) : std::nullopt) {
    out.Warn("a further key of that name is read now", change.What() + "=" + *value, "delete it as well");
  }
}

void WarnIfUnwritable(const IniChange& change, const Content& old, Output& out) {
  const std::string place = old ? change.file : DirectoryPart(change.file);
  if (::access(place.c_str(), old ? W_OK : W_OK | X_OK) == 0) return;
  const CommandError failure = SystemFailure("the real run would fail", place, errno);
  out.Warn(failure.what());
}

ExitCode Report(const IniChange& change, const Content& old, const Content& content, Output& out) {
  const bool isChanged = content && content != old;
  const std::string name = Printable(change.file);
  const std::string diff =
      isChanged ? UnifiedDiff(old ? name : "/dev/null", name, old ? *old : "", *content) : std::string();
  std::string text;
  if (!isChanged) {
    text = change.isDry ? "nothing would change\n" : "nothing to change\n";
  } else if (change.isDry) {
    text = diff;
    if (!change.isRaw) {
      text.clear();
      for (const std::string& line : SplitList(diff, '\n'))
        text += Printable(line) + '\n';
    }
  } else {
    text = std::string(change.value ? "set: " : "deleted: ") + Printable(change.What()) + '\n';
  }
  out.Print(kIniChange, text,
            {{"file", change.file},
             {"action", change.value ? "set" : "del"},
             {"section", change.section},
             {"key", change.key ? Json(*change.key) : Json()},
             {"dry_run", change.isDry},
             {"changed", isChanged},
             {"created", isChanged && !old},
             {"diff", diff}});
  return content || change.isDry ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

ExitCode RunIniChange(const IniChange& change, Output& out) {
  RequireWritable(change);
  const Content old = ReadFileIfThere(change.file);
  if (!old && !change.value) throw SystemFailure("cannot read", change.file, ENOENT);
  const Content content = Rehearse(change, old);
  if (content) WarnOfWhatIsLeft(change, *content, out);
  if (content && content != old) {
    if (change.isDry) {
      WarnIfUnwritable(change, old, out);
    } else if (!Write(change, change.file)) {
      ThrowNotWritten(change.file, old, *content);
    } else if (ReadFileIfThere(change.file) != content) {
      out.Warn("somebody else wrote the file meanwhile", change.file, "look at it");
    }
  }
  return Report(change, old, content, out);
}

void AddIniChangeOptions(Command& command, IniChange& change) {
  command.Answers({&kIniChange});
  command.AddFlag("--dry-run", &change.isDry, "Show the change as a unified diff and write nothing");
  command.AddFlag("--raw", &change.isRaw, "Control bytes of the diff as they are, for patch, instead of \\xNN");
}

}  // namespace ravctl
