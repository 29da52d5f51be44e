// trace level: write the level into the configuration.

#include <algorithm>
#include <cctype>
#include <optional>

#include "platform/edit_file.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/files.h"
#include "ravctl/commands/trace/group.h"
#include "ravctl/daemon/process.h"
#include "ravctl/trace/trace_settings.h"
#include "trace/debug_trace_config_file.h"

namespace ravctl {

namespace {

constexpr std::string_view kKey = "FileDebugLevel";
constexpr const char* kEndOfFile = "EndOfFile";
constexpr const char* kDaemon = "ravd";
constexpr const char* kPackageFile = "ravd.ini";
constexpr const char* kOwnFile = "00-ravctl.ini";  // the first of them counts
constexpr mode_t kNewFileMode = 0644;
constexpr int kAttempts = 20;  // while others write the file

// It becomes the name of a section and of a file.
std::string ApplicationFault(const std::string& name) {
  const bool isPlain = std::ranges::none_of(
      name, [](unsigned char c) { return std::iscntrl(c) != 0 || c == '/' || c == '[' || c == ']'; });
  return isPlain && !name.empty() && ::strcasecmp(name.c_str(), kEndOfFile) != 0 ? ""
                                                                                 : "not the name of an application";
}

// A part of the text.
struct Range {
  size_t begin;
  size_t end;
};

// The text of a section, from behind its name on.
std::optional<Range> FindSection(const std::string& text, const std::string& wanted) {
  for (size_t open = text.find('['); open != std::string::npos; open = text.find('[', open + 1)) {
    const size_t close = text.find(']', open);
    if (close == std::string::npos) break;
    const std::string name = text.substr(open + 1, close - open - 1);
    if (::strcasecmp(name.c_str(), wanted.c_str()) == 0)
      return Range{close + 1, std::min(text.find('[', close), text.size())};
  }
  return std::nullopt;
}

// Where the level stands, on the line of the key alone; begin and end are the same when it is empty. None when the
// trace object finds it elsewhere, as in a comment, or nowhere.
std::optional<Range> FindLevel(const std::string& text, const Range& section) {
  constexpr const char* kBlanks = " \t";
  const size_t key = text.find(kKey, section.begin);
  const size_t equals = key < section.end ? text.find('=', key) : std::string::npos;
  if (equals >= section.end) return std::nullopt;
  const size_t line = std::max(section.begin, text.rfind('\n', equals) + 1);
  const size_t first = text.find_first_not_of(kBlanks, line);
  if (text.compare(first, kKey.size(), kKey) != 0 || text.find_first_not_of(kBlanks, first + kKey.size()) != equals) {
    return std::nullopt;
  }
  const size_t begin = std::min(text.find_first_not_of(kBlanks, equals + 1), section.end);
  return Range{begin, std::min(text.find_first_of(" \t\r\n;", begin), section.end)};
}

// The file's text with the level set and all else as it is. body: of the section where there is none yet.
std::string WithLevel(std::string text, const std::string& application, const std::string& level,
                      const std::string& body) {
  const std::string line = std::string(kKey) + "=" + level + "\n";
  if (const std::optional<Range> section = FindSection(text, application)) {
    if (const std::optional<Range> old = FindLevel(text, *section)) {
      return text.replace(old->begin, old->end - old->begin, level);
    }
    const size_t lineEnd = text.find('\n', section->begin);
    return lineEnd < section->end ? text.insert(lineEnd + 1, line) : text.insert(section->begin, "\n" + line);
  }
  // Before what ends the file.
  const std::string whole = "[" + application + "]" + body;
  const size_t close = text.rfind(']');
  const size_t last = close == std::string::npos ? close : text.rfind('[', close);
  text = last == std::string::npos ? text + whole + "[" + kEndOfFile + "]\n" : text.insert(last, whole);
  return WithLevel(std::move(text), application, level, body);
}

bool IsLevelRead(const std::string& text, const std::string& application, uint32_t level) {
  constexpr const char* kName = "copy.ini";
  const TemporaryDirectory directory;
  WriteNewFile(directory.Path() + "/" + kName, text);
  CDebugTraceConfigFile file;
  uint32_t read = 0;
  return file.OpenSectionInIniFile(application.c_str(), kName, directory.Path().c_str()) &&
         file.ReadNumber(kKey.data(), read) && read == level;
}

// The trace object reads the new text from a private copy first. A file that somebody else wrote meanwhile is read
// anew.
void WriteLevel(const std::string& path, const std::string& application, uint32_t level, const std::string& body) {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const std::optional<std::string> old = ReadFileIfThere(path);
    const std::string text = WithLevel(old.value_or(""), application, std::to_string(level), body);
    if (!IsLevelRead(text, application, level)) {
      throw CommandError(ExitCode::kInputDamaged, "the level would not be read there, nothing was written", path,
                         "see ravctl trace config, and mend the file in an editor");
    }
    const FileEdit edit = EditFile(path.c_str(), kNewFileMode, [&](std::string& content, bool isThere) {
      const bool isOld = isThere == old.has_value() && content == old.value_or("");
      content = text;
      return isOld;
    });
    if (edit == FileEdit::kDone) return;
    if (edit != FileEdit::kRefused) ThrowNotWritten(path, old, text);
  }
  throw CommandError(ExitCode::kInputMissing, "others write the file all the time", path, "try again");
}

// Where the level goes: into the file that holds the application's section. The package's own file is left alone, but
// for one that the running daemon follows, where the level counts at once; a file that goes before it takes over its
// section instead.
struct Destination {
  std::string name;
  std::string body = "\n\n";  // of a new section
};

Destination ChooseFile(const std::string& application, const TraceSettings& settings) {
  const std::string& used = settings.ApplicationFile();
  if (used.empty()) return {application + "_trace.ini"};
  const bool isFollowed = settings.DynamicUpdate() != 0 && application == kDaemon && FindDaemon().has_value();
  if (used != kPackageFile || isFollowed) return {used};
  const std::string text = ReadWholeFile(std::string(kTraceConfigDirectory) + "/" + used);
  const std::optional<Range> section = FindSection(text, application);
  return {kOwnFile, section ? text.substr(section->begin, section->end - section->begin) : "\n\n"};
}

void WarnAboutEffect(const TraceSettings& settings, Output& out) {
  const bool isRunning = FindDaemon().has_value();
  if (settings.IsLevelFromEnvironment()) {
    out.Warn("QN_LOG_DEBUG_LEVEL is set and goes before the file at every start", settings.EnvironmentOf());
  }
  if (!settings.IsTracing()) {
    out.Warn("there is no ring buffer to trace into", kTraceConfigDirectory,
             "set RingBufferSizeFactor and RingBufferSizeWeight, then restart");
  } else if (isRunning && settings.DynamicUpdate() == 0) {
    out.Warn("DynamicUpdate is 0: the running daemon keeps its level", kTraceConfigDirectory,
             "a restart overwrites its traces: keep them by ravctl bundle --trace, then restart it");
  }
}

ExitCode Run(const std::string& application, uint32_t level, Output& out) {
  const TraceSettings settings(application);
  const auto [name, body] = ChooseFile(application, settings);
  const std::string path = std::string(kTraceConfigDirectory) + "/" + name;
  WriteLevel(path, application, level, body);
  const TraceSettings now(application);
  if (now.ApplicationFile() != name) {
    throw CommandError(ExitCode::kInputDamaged, "the level was written but is not read", path,
                       "see ravctl trace config");
  }
  if (name == kOwnFile && settings.ApplicationFile() != name) {
    out.Warn("goes before the file of the package from now on, with a copy of its section", path,
             "remove it to go back");
  }
  WarnAboutEffect(now, out);
  out.Print(kTraceLevel, path + ": " + std::string(kKey) + "=" + std::to_string(level) + "\n",
            {{"path", path}, {"level", level}, {"effective_level", now.Level()}});
  return ExitCode::kDone;
}

}  // namespace

void AddTraceLevel(Command& trace) {
  struct Options {
    uint32_t level = 0;
    std::string application = kDaemon;
  };
  auto options = std::make_shared<Options>();
  Command& level = trace.Add({"level",
                              "Write the trace level into the configuration, and say when it takes effect",
                              {{"ravctl trace level 5", "of the daemon: 1 errors, 2 steps, 3 details ... 6 everything"},
                               {"ravctl trace level 0 --app mytool", "of another application: off"}},
                              Effect::kChanges},
                             [options](Output& out) { return Run(options->application, options->level, out); });
  level.Answers({&kTraceLevel});
  level.AddRequired("LEVEL", &options->level, "0 to 6", InRange(0, 6));
  level.AddOption("--app", &options->application, "NAME", "Application, usually ravd", ApplicationFault);
}

}  // namespace ravctl
