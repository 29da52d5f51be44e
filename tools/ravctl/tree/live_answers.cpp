#include "ravctl/tree/live_answers.h"

#include <unistd.h>

#include <filesystem>

#include "ravctl/answer/json.h"
#include "ravctl/answer/schema.h"
#include "ravctl/base/error.h"
#include "ravctl/base/files.h"
#include "ravctl/base/json_reader.h"
#include "ravctl/base/times.h"
#include "ravctl/tree/bundle_format.h"
#include "ravctl/tree/enter.h"
#include "ravctl/tree/tree_reading.h"

namespace ravctl {

namespace {

constexpr int kSeconds = 10;
constexpr const char* kFolder = "/ravctl";
constexpr std::string_view kEnding = ".json";

std::string PathOf(const Schema& schema) {
  return kFolder + ("/" + std::string(schema.name)) + std::string(kEnding);
}

std::string NameOf(const Schema& schema) {
  return "ravctl/" + std::string(schema.name);
}

bool IsAnswer(Json& answer, const Schema& schema) {
  return answer.is_object() && answer.value("schema", Json()) == NameOf(schema) &&
         answer.value("version", Json()) == schema.version && Complete(answer["data"], schema.data);
}

}  // namespace

void CaptureAnswer(const Schema& schema, const std::function<Json()>& read, Capture& capture) {
  const std::string path = PathOf(schema);
  try {
    const Json answer = {{"schema", NameOf(schema)},
                         {"version", schema.version},
                         {"root", "/"},
                         {"data", ReadInChild(kSeconds, path, read)},
                         {"warnings", Json::array()}};
    capture.AddText(path, answer.dump(1) + "\n");
  } catch (const CommandError& error) {
    capture.AddUncaptured(path, error.what(), false);
  }
}

bool HasCapturedAnswers() {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(kFolder, ignored))
    if (IsInSysroot() && entry.path().extension() == kEnding) return true;
  return false;
}

std::optional<Json> FindCapturedAnswer(const Schema& schema) {
  const std::string path = PathOf(schema);
  const std::optional<std::string> text = IsInSysroot() ? ReadFileIfThere(path) : std::nullopt;
  if (!text) return std::nullopt;
  std::string why;
  std::optional<Json> answer = ReadJson(*text, why);
  if (answer && IsAnswer(*answer, schema)) return std::move((*answer)["data"]);
  if (answer) why = "it is no " + NameOf(schema);
  throw CommandError(ExitCode::kInputDamaged, "the captured answer is damaged", path + ": " + why, "capture it anew");
}

Json CapturedAnswer(const Schema& schema, Output& out) {
  std::optional<Json> data = FindCapturedAnswer(schema);
  if (!data) {
    throw CommandError(ExitCode::kInputMissing, "the tree does not hold what only a running machine tells",
                       PathOf(schema), "make a bundle there");
  }
  const bool hasTime = ::access((std::string("/") + kManifestPath).c_str(), F_OK) == 0;
  out.Warn("this is how it was at the time of the capture", hasTime ? LocalTimeText(PresentTime()) : "");
  return std::move(*data);
}

}  // namespace ravctl
