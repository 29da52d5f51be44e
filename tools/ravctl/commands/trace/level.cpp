// trace level: write the level into the configuration.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/files.h"
#include "ravctl/commands/trace/group.h"
#include "ravctl/daemon/process.h"
#include "ravctl/trace/trace_settings.h"

namespace ravctl {

namespace {

constexpr const char* kKey = "FileDebugLevel";

// Where the value of the key stands in the section as the trace object finds it: the first occurrence of the key's
// text, the next "=", the end of the line. npos/0 when the key is not there; sectionEnd is where it could be added.
struct ValuePlace {
  size_t start = std::string::npos;
  size_t length = 0;
  size_t sectionStart = std::string::npos;
};

ValuePlace FindValuePlace(const std::string& text, const std::string& section) {
  ValuePlace place;
  for (size_t open = text.find('['); open != std::string::npos; open = text.find('[', open + 1)) {
    const size_t close = text.find(']', open);
    if (close == std::string::npos) return place;
    const std::string name = text.substr(open + 1, close - open - 1);
    if (::strcasecmp(name.c_str(), section.c_str()) != 0) continue;
    place.sectionStart = close + 1;
    const size_t end = std::min(text.find('[', close), text.size());
    const size_t key = text.find(kKey, close);
    const size_t equals = key < end ? text.find('=', key) : std::string::npos;
    if (equals >= end) return place;
    place.start = std::min(text.find_first_not_of(" \t\r\n\v\f", equals + 1), end);
    place.length = std::min(text.find('\n', place.start), end) - place.start;
    return place;
  }
  return place;
}

// The file's text with the level set; a section that is missing goes before what ends the file.
std::string WithLevel(std::string text, const std::string& section, const std::string& level) {
  const ValuePlace place = FindValuePlace(text, section);
  if (place.start != std::string::npos) return text.replace(place.start, place.length, level);
  const std::string line = std::string(kKey) + "=" + level + "\n";
  if (place.sectionStart != std::string::npos) {
    // Behind the section's own line, so that nothing that follows is torn apart.
    const size_t lineEnd = text.find('\n', place.sectionStart);
    if (lineEnd == std::string::npos) return text.insert(place.sectionStart, "\n" + line);
    return text.insert(lineEnd + 1, line);
  }
  const std::string whole = "[" + section + "]\n" + line + "\n";
  const size_t close = text.rfind(']');
  const size_t last = close == std::string::npos ? close : text.rfind('[', close);
  return last == std::string::npos ? text + whole + "[EndOfFile]\n" : text.insert(last, whole);
}

void WriteWhole(int fd, const std::string& text, const std::string& path) {
  if (!WriteAllAt(fd, text, 0) || ::fsync(fd) != 0) throw SystemFailure("cannot write", path, errno);
}

// Over a temporary file, so that the daemon reads the old text or the new one; owner and mode stay.
void ReplaceFile(const std::string& path, const std::string& text) {
  struct stat info {};
  const bool isOld = ::stat(path.c_str(), &info) == 0;
  std::string temporary = path + ".XXXXXX";
  UniqueFd file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!file) throw SystemFailure("cannot write beside", path, errno);
  try {
    WriteWhole(file.Get(), text, temporary);
    if (::fchmod(file.Get(), isOld ? info.st_mode & 07777 : 0644) != 0 ||
        (isOld && ::fchown(file.Get(), info.st_uid, info.st_gid) != 0) ||
        ::rename(temporary.c_str(), path.c_str()) != 0) {
      throw SystemFailure("cannot replace", path, errno);
    }
  } catch (const CommandError&) {
    ::unlink(temporary.c_str());
    throw;
  }
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
    out.Warn("DynamicUpdate is 0: the running daemon keeps its level", kTraceConfigDirectory, "restart it");
  }
}

ExitCode Run(const std::string& application, uint32_t level, Output& out) {
  const TraceSettings settings(application);
  const std::string name = settings.ApplicationFile().empty() ? application + "_trace.ini" : settings.ApplicationFile();
  const std::string path = std::string(kTraceConfigDirectory) + "/" + name;
  const std::string old = ReadFileIfThere(path).value_or("");
  ReplaceFile(path, WithLevel(old, application, std::to_string(level)));
  const TraceSettings now(application);
  if (now.ApplicationFile() != name) {
    throw CommandError(ExitCode::kInputDamaged, "the level was written but is not read", path,
                       "see ravctl trace config");
  }
  WarnAboutEffect(now, out);
  out.Print({"trace-level"}, path + ": " + kKey + "=" + std::to_string(level) + "\n",
            {{"path", path}, {"level", level}, {"effective_level", now.Level()}});
  return ExitCode::kDone;
}

}  // namespace

void AddTraceLevel(Command& trace) {
  struct Options {
    uint32_t level = 0;
    std::string application = "ravd";
  };
  auto options = std::make_shared<Options>();
  Command& level = trace.Add({"level",
                              "Write the trace level into the configuration, and say when it takes effect",
                              {{"ravctl trace level 5", "of the daemon: 1 errors, 2 steps, 3 details ... 6 everything"},
                               {"ravctl trace level 0 --app mytool", "of another application: off"}},
                              Effect::kChanges},
                             [options](Output& out) { return Run(options->application, options->level, out); });
  level.AddRequired("LEVEL", &options->level, "0 to 6", InRange(0, 6));
  level.AddOption("--app", &options->application, "NAME", "Application, usually ravd");
}

}  // namespace ravctl
