// module run: loads, starts, stops and unloads a module switch in a child, the way the daemon does, with its trace.
// Whatever ends the command, SIGKILL included, no process of the modules is left, nor the directory of the trace.

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
#include "ravctl/base/files.h"
#include "ravctl/base/text.h"
#include "ravctl/commands/module/group.h"
#include "ravctl/line/command.h"
#include "ravctl/trace/trace_entry.h"
#include "ravctl/trace/trace_file.h"
#include "trace/debug.h"

namespace ravctl {

namespace {

constexpr const char* kApplication = "ravctl-module";

struct RunOptions {
  std::string library;
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
  StartTrace(directory, options.level);
  BlockSignals();
  void* library = ::dlopen(options.library.c_str(), RTLD_NOW | RTLD_GLOBAL);
  if (library == nullptr) {
    const char* why = ::dlerror();
    Tell(report, std::string("!") + (why != nullptr ? why : "cannot be loaded"));
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
  return isLoaded ? 0 : 1;
}

std::string Ending(const ChildResult& result, const RunOptions& options) {
  if (result.isTimeout) return "killed: not done after " + std::to_string(options.timeout) + " s";
  if (result.signal != 0) return std::string("crashed: ") + ::strsignal(result.signal);
  return "";
}

Json ReadTrace(const std::string& directory) {
  Json entries = Json::array();
  try {
    const TraceFile file(PathsOf(directory, kApplication).log);
    for (const std::string_view part : file.Layout().parts) {
      ForEachEntry(part, [&entries](std::string_view whole) {
        const TraceEntry entry = ParseEntry(whole);
        entries.push_back({{"time", entry.time}, {"thread", entry.thread}, {"text", entry.text}});
        return true;
      });
    }
  } catch (const CommandError&) {
    // It ended before it could trace.
  }
  return entries;
}

struct SwitchRun {
  ChildResult result;
  Json trace;
};

// The directory of the trace is there no longer than the child and its keeper.
SwitchRun RunTraced(const RunOptions& options) {
  const TemporaryDirectory directory;
  KeptChild child([&](int report) { return RunSwitch(options, directory.Path(), report); },
                  [&directory] { directory.Remove(); });
  SwitchRun run;
  run.result = child.Wait(static_cast<int>(options.timeout));
  run.trace = ReadTrace(directory.Path());
  directory.Remove();
  return run;
}

ExitCode RunRun(const RunOptions& options, Output& out) {
  if (::access(options.library.c_str(), R_OK) != 0)
    throw SystemFailure("cannot open the library", options.library, errno);
  const std::string library = std::filesystem::absolute(options.library).string();
  RunOptions absolute = options;
  absolute.library = library;
  const auto [result, trace] = RunTraced(absolute);
  std::string text;
  Json steps = Json::array();
  bool isGood = !result.isTimeout && result.signal == 0 && result.status == 0;
  const auto addStep = [&](const std::string& step, bool isStepGood) {
    steps.push_back({{"step", step}, {"good", isStepGood}});
    text +=
        out.Colored(isStepGood ? Color::kGreen : Color::kRed, isStepGood ? "ok   " : "FAIL ") + Printable(step) + "\n";
  };
  for (const std::string& line : SplitList(result.report, '\n'))
    addStep(line.starts_with('!') ? line.substr(1) : line, !line.starts_with('!'));
  if (const std::string ending = Ending(result, options); !ending.empty()) addStep(ending, false);
  text += "\nTrace:\n";
  for (const Json& entry : trace) {
    text += Printable(entry["time"].get_ref<const std::string&>()) + " [" +
            Printable(entry["thread"].get_ref<const std::string&>()) + "] " +
            Printable(entry["text"].get_ref<const std::string&>()) + "\n";
  }
  out.Print({"module-run"}, text, {{"library", library}, {"good", isGood}, {"steps", steps}, {"trace", trace}});
  return isGood ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddModuleRun(Command& module) {
  auto options = std::make_shared<RunOptions>();
  Command& run =
      module.Add({"run",
                  "Load, start, stop and unload a module switch in a child, as the daemon does, and show its trace",
                  {{"ravctl module run ./libswitch.so", "let its modules run for two seconds"},
                   {"ravctl module run ./libswitch.so --seconds 60 --timeout 90", "a longer run with a longer limit"}},
                  Effect::kChanges},
                 [options](Output& out) { return RunRun(*options, out); });
  run.AddRequired("LIB", &options->library, "The library");
  run.AddOption("-s,--seconds", &options->seconds, "N", "How long the modules run (usually 2)");
  run.AddOption("--timeout", &options->timeout, "N", "Seconds after which all is killed (usually 30)",
                InRange(1, 86400));
  run.AddOption("--level", &options->level, "N", "Trace level (usually 5)");
  run.AddOption("--run-mode", &options->runMode, "N", "Run mode told to the modules: 0 (usual), 5, 7, 8 or 10",
                OneOf({"0", "5", "7", "8", "10"}));
}

}  // namespace ravctl
