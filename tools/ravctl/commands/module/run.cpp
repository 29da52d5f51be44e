// module run: loads, starts, stops and unloads a module switch in a child, the way the daemon does, and shows its trace
// as it comes. Whatever ends the command, SIGKILL included, no process of the modules is left, nor the directory of the
// trace.

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

#include "daemon/switch_interface.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/child.h"
#include "ravctl/base/crash_report.h"
#include "ravctl/base/files.h"
#include "ravctl/base/text.h"
#include "ravctl/commands/module/example_switch.h"
#include "ravctl/commands/module/group.h"
#include "ravctl/line/command.h"
#include "ravctl/trace/log_follower.h"
#include "ravctl/trace/trace_entry.h"
#include "ravctl/trace/trace_file.h"
#include "trace/debug.h"

namespace ravctl {

namespace fs = std::filesystem;

namespace {

constexpr const char* kApplication = "ravctl-module";
constexpr int kWhole = 42;  // status of a child that came to its end; what a module exits with is another one

struct RunOptions {
  std::string library;
  std::string module;  // instead of a library: what the example switch is to load
  bool allowsErrors = false;
  unsigned int seconds = 2;   // between start and stop
  unsigned int timeout = 30;  // for all of it
  unsigned int level = 5;
  unsigned int runMode = 0;
};

// Tells the parent that a step is done.
void Tell(int fd, std::string_view step) {
  const std::string line = std::string(step) + "\n";
  [[maybe_unused]] const ssize_t written = ::write(fd, line.data(), line.size());
}

void StartTrace(const std::string& directory, unsigned int level) {
  ::setenv("QN_LOG_RINGBUF_DIR", directory.c_str(), 1);
  ::setenv("QN_LOG_DEBUG_LEVEL", std::to_string(level).c_str(), 1);
  ::setenv("TraceFileLimit", "1", 1);
  ::setenv("QN_LOG_RINGBUF_WEIGHT", "1", 1);
  ::setenv("QN_LOG_FILE_MAX_SIZE", "16777216", 1);
  Debug.Init(kApplication);
  Debug.SetTarget(CDebug::kTargetLogFile);
}

// As in the daemon, the threads of the modules inherit a mask without these.
void BlockSignals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM})
    ::sigaddset(&signals, signal);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

// In the child. The daemon's order of calls; each step is told when it has returned.
int RunSwitch(const RunOptions& options, const std::string& directory, int report) {
  ReportCrashesTo(report);
  StartTrace(directory, options.level);
  BlockSignals();
  void* library = ::dlopen(options.library.c_str(), RTLD_NOW | RTLD_GLOBAL);
  if (library == nullptr) {
    const char* why = ::dlerror();
    const std::string advice = options.module.empty() ? "" : " (the files of TMPDIR must be executable)";
    Tell(report, std::string("!") + (why != nullptr ? why : "cannot be loaded") + advice);
    return 1;
  }
  Tell(report, "library loaded");
  const auto query = reinterpret_cast<SwitchQueryInterfaceFunction>(::dlsym(library, "SW_QueryInterface"));
  const auto release = reinterpret_cast<SwitchReferenceFunction>(::dlsym(library, "SW_Release"));
  ISwitch* modules = nullptr;
  if (query == nullptr || !query(0, &modules) || modules == nullptr) {
    Tell(report, query == nullptr ? "!SW_QueryInterface is missing" : "!the interface was refused");
    return 1;
  }
  Tell(report, "interface obtained");
  _ExtensionModuleLoaderConfig config;
  config.RunMode = options.runMode;
  const bool isLoaded = modules->LoadModules(config);
  Tell(report, isLoaded ? "modules loaded" : "!LoadModules returned false");
  if (isLoaded) {
    modules->StartModules();
    Tell(report, "modules started");
    std::this_thread::sleep_for(std::chrono::seconds(options.seconds));
    modules->NotifyEvent(SW_NOTIFY_STOP, nullptr, nullptr);
    Tell(report, "stop notified");
  }
  modules->StopModules();
  Tell(report, "modules stopped");
  modules->UnloadModules(0);
  Tell(report, "modules unloaded");
  if (release != nullptr) release();
  ::dlclose(library);
  Tell(report, "library closed");
  return isLoaded ? kWhole : 1;
}

std::string Ending(const ChildResult& result, const RunOptions& options) {
  if (result.isTimeout) return "killed: not done after " + std::to_string(options.timeout) + " s";
  if (result.signal == 0) return "";
  const size_t crash = result.report.find(kCrashMark);
  const std::string place =
      crash == std::string::npos ? "" : PlaceOfCrash(std::string_view(result.report).substr(crash));
  return std::string("crashed: ") + ::strsignal(result.signal) + (place.empty() ? "" : ", in " + place);
}

// What happens in a run, shown as it happens and kept for the answer.
class RunProgress {
 public:
  RunProgress(const std::string& directory, Output& out) : m_Trace(PathsOf(directory, kApplication).log), m_Out(out) {}

  // Takes what is new in the trace, and in the report of the child, whose steps are lines.
  void Look(std::string_view report) {
    m_Trace.Read([this](std::string_view whole) { AddEntry(ParseEntry(whole)); });
    report = report.substr(0, report.find(kCrashMark));
    for (size_t end = 0; (end = report.find('\n', m_Reported)) != std::string_view::npos; m_Reported = end + 1) {
      const std::string_view line = report.substr(m_Reported, end - m_Reported);
      const bool isGood = !line.starts_with('!');
      AddStep(std::string(line.substr(isGood ? 0 : 1)), isGood);
    }
    m_Out.Flush();
  }

  void AddStep(const std::string& step, bool isGood) {
    m_IsGood = m_IsGood && isGood;
    m_Steps.push_back({{"step", step}, {"good", isGood}});
    Show(m_Out.Colored(isGood ? Color::kGreen : Color::kRed, isGood ? "ok   " : "FAIL ") + Printable(step));
  }

  bool IsGood() const { return m_IsGood; }
  size_t Errors() const { return m_Errors; }
  Json ToJson(const std::string& library) const {
    return {{"library", library}, {"good", m_IsGood}, {"errors", m_Errors}, {"steps", m_Steps}, {"trace", m_Entries}};
  }

 private:
  void AddEntry(const TraceEntry& entry) {
    const bool isError = GravityOf(entry.text) == Gravity::kError;
    m_Errors += isError ? 1 : 0;
    m_Entries.push_back({{"time", entry.time}, {"thread", entry.thread}, {"text", entry.text}});
    const std::string line = Printable(entry.time) + " [" + Printable(entry.thread) + "] " + Printable(entry.text);
    Show(m_Out.Colored(isError ? Color::kRed : Color::kNone, line));
  }

  void Show(const std::string& line) {
    if (!m_Out.IsJson()) m_Out.Write(line + "\n");
  }

  LogFollower m_Trace;
  Output& m_Out;
  size_t m_Reported = 0;  // bytes of the report that were taken
  Json m_Steps = Json::array();
  Json m_Entries = Json::array();
  size_t m_Errors = 0;
  bool m_IsGood = true;
};

// The example switch with that one module beside it. Result: the switch.
std::string MakeSwitch(const std::string& directory, const std::string& module) {
  std::error_code error;
  const fs::path name = fs::path(module).filename();
  fs::create_directory(directory + "/modules", error);
  fs::create_symlink(module, directory + "/modules/" + name.stem().string() + ".so", error);
  if (error) throw SystemFailure("cannot make the directory of the module", directory, error.value());
  WriteNewFile(directory + "/libswitch.so", ExampleSwitch());
  return directory + "/libswitch.so";
}

// The directory of the trace is there no longer than the child and its keeper.
ExitCode RunRun(const RunOptions& options, Output& out) {
  if (options.library.empty() == options.module.empty()) {
    throw CommandError(ExitCode::kUsage, "either LIB or --module is wanted", options.library,
                       "see ravctl module run --help");
  }
  const std::string& given = options.module.empty() ? options.library : options.module;
  if (::access(given.c_str(), R_OK) != 0) throw SystemFailure("cannot open the library", given, errno);
  const std::string path = fs::absolute(given).string();
  const TemporaryDirectory directory;
  RunOptions absolute = options;
  absolute.library = options.module.empty() ? path : MakeSwitch(directory.Path(), path);
  KeptChild child([&](int report) { return RunSwitch(absolute, directory.Path(), report); },
                  [&directory] { directory.Remove(); });
  RunProgress progress(directory.Path(), out);
  const ChildResult result =
      child.Wait(static_cast<int>(options.timeout), [&progress](const std::string& report) { progress.Look(report); });
  progress.Look(result.report);
  if (const std::string ending = Ending(result, options); !ending.empty()) {
    progress.AddStep(ending, false);
  } else if (progress.IsGood() && result.status != kWhole) {
    progress.AddStep("a module ended the process with status " + std::to_string(result.status), false);
  }
  if (progress.Errors() > 0 && !options.allowsErrors) {
    progress.AddStep(std::to_string(progress.Errors()) + " errors in the trace", false);
  }
  if (out.IsJson()) out.Print(kModuleRun, "", progress.ToJson(path));
  return progress.IsGood() ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddModuleRun(Command& module) {
  auto options = std::make_shared<RunOptions>();
  Command& run = module.Add(
      {"run",
       "Load, start, stop and unload a module switch in a child, as the daemon does, and show its trace as it "
       "comes; exit status 1 when a step fails or an error was traced",
       {{"ravctl module run ./libswitch.so", "let its modules run for two seconds"},
        {"ravctl module run --module ./my_module.so", "a single module, by the switch of the examples"},
        {"ravctl module run ./libswitch.so --seconds 60 --timeout 90", "a longer run with a longer limit"}},
       Effect::kChanges},
      [options](Output& out) { return RunRun(*options, out); });
  run.Answers({&kModuleRun});
  run.AddWord("LIB", &options->library, "The module switch");
  run.AddOption("--module", &options->module, "FILE", "Instead of a switch: a module as the example switch loads it");
  run.AddFlag("--allow-errors", &options->allowsErrors, "Entries with ERROR or FAILED in the trace are no failure");
  run.AddOption("-s,--seconds", &options->seconds, "N", "How long the modules run (usually 2)");
  run.AddOption("--timeout", &options->timeout, "N", "Seconds after which all is killed (usually 30)",
                InRange(1, 86400));
  run.AddOption("--level", &options->level, "N", "Trace level (usually 5)");
  run.AddOption("--run-mode", &options->runMode, "N", "Run mode told to the modules: 0 (usual), 5, 7, 8 or 10",
                OneOf({"0", "5", "7", "8", "10"}));
}

}  // namespace ravctl
