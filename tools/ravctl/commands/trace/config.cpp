// trace config: the effective trace settings and where each comes from.

#include "ravctl/answer/json.h"
#include "ravctl/commands/trace/group.h"
#include "ravctl/line/command.h"
#include "ravctl/trace/trace_settings.h"

namespace ravctl {

namespace {

ExitCode RunConfig(const std::string& application, Output& out) {
  const TraceSettings settings(application);
  Table table(kTraceConfig);
  Json rows = Json::array();
  for (const TraceSetting& setting : settings.Settings()) {
    rows.push_back({{"name", setting.name},
                    {"value", setting.value},
                    {"source", setting.source},
                    {"from", setting.from.empty() ? Json() : Json(setting.from)},
                    {"comment", setting.comment.empty() ? Json() : Json(setting.comment)}});
    table.Add(rows.back());
  }
  Json files = Json::array();
  for (const TraceConfigFile& file : settings.Files()) {
    files.push_back({{"path", file.path}, {"used", file.isUsed}, {"reason", file.reason}});
    Json row = {{"name", "file"},
                {"value", file.isUsed ? "used" : "ignored"},
                {"source", "file"},
                {"from", file.path},
                {"comment", file.reason}};
    table.Add(std::move(row));
  }
  table.Add({{"name", "environment"}, {"value", settings.EnvironmentOf()}});
  table.Add({{"name", "tracing"}, {"value", settings.IsTracing() ? "on" : "off"}});
  out.Print(kTraceConfig, table,
            {{"application", application},
             {"tracing", settings.IsTracing()},
             {"environment", settings.EnvironmentOf()},
             {"settings", rows},
             {"files", files}});
  return ExitCode::kDone;
}

}  // namespace

void AddTraceConfig(Command& trace) {
  auto application = std::make_shared<std::string>("ravd");
  Command& config = trace.Add({"config",
                               "Show every trace setting, where it comes from, and why a file was ignored",
                               {{"ravctl trace config", "of the daemon, with its own environment when it runs"},
                                {"QN_LOG_DEBUG_LEVEL=3 ravctl trace config mytool", "what a start would use"}}},
                              [application](Output& out) { return RunConfig(*application, out); });
  config.Answers({&kTraceConfig});
  config.AddWord("APPLICATION", application.get(), "Usually ravd");
}

}  // namespace ravctl
