// registry verify: read the files of the registry strictly and say what a start would do with them.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "ravctl/commands/registry/group.h"
#include "ravctl/registry/store_files.h"
#include "ravctl/registry/store_survey.h"

namespace ravctl {

namespace {

std::string LocalTime(int64_t seconds) {
  const auto value = static_cast<time_t>(seconds);
  tm local{};
  std::array<char, 32> text{};
  if (localtime_r(&value, &local) == nullptr) return "";
  std::strftime(text.data(), text.size(), "%F %T", &local);
  return text.data();
}

Color HealthColor(const Json& row) {
  const auto& health = row["health"].get_ref<const std::string&>();
  if (health == "ok") return Color::kGreen;
  return health == "damage" ? Color::kRed : Color::kYellow;
}

Json FileObject(const StoreFileState& file) {
  const bool isRead = file.error == 0;
  return {{"file", file.path},
          {"exists", file.Exists()},
          {"bytes", isRead ? Json(file.bytes) : Json()},
          {"modified", isRead ? Json(LocalTime(file.modified)) : Json()},
          {"keys", isRead ? Json(file.check.keys) : Json()},
          {"values", isRead ? Json(file.check.values) : Json()},
          {"damage", isRead ? Json(file.check.Damage()) : Json()},
          {"loaded", file.isLoaded},
          {"reason", file.reason}};
}

Json FindingRow(const std::string& file, const StoreFinding& finding, bool isDamage) {
  return {{"file", file},
          {"line", finding.line > 0 ? Json(finding.line) : Json()},
          {"health", isDamage ? "damage" : "note"},
          {"finding", finding.code},
          {"key", finding.key.empty() ? Json() : Json(finding.key)},
          {"detail", finding.detail}};
}

Json SummaryRow(const StoreFileState& file) {
  const std::string counts =
      std::to_string(file.check.keys) + " keys, " + std::to_string(file.check.values) + " values";
  const bool isWhole = file.IsWhole();
  const char* finding = !file.Exists() ? "missing" : file.error != 0 ? "unreadable" : isWhole ? "whole" : "not whole";
  return {{"file", file.path},  {"line", nullptr}, {"health", file.Exists() && isWhole ? "ok" : "note"},
          {"finding", finding}, {"key", nullptr},  {"detail", (file.error == 0 ? counts + "; " : "") + file.reason}};
}

// What a file that no start loads lacks harms nobody.
bool IsOfStart(const std::string& path) {
  return std::ranges::find(kStartOrder, path) != kStartOrder.end();
}

class Report {
 public:
  Report()
      : m_Table({{.key = "file", .heading = "FILE"},
                 {.key = "line", .heading = "LINE", .isRight = true},
                 {.key = "health", .heading = "HEALTH", .color = HealthColor},
                 {.key = "finding", .heading = "FINDING"},
                 {.key = "key", .heading = "KEY"},
                 {.key = "detail", .heading = "DETAIL"}}) {}

  void Add(const StoreFileState& file, bool counts) {
    m_Files.push_back(FileObject(file));
    AddRow(SummaryRow(file));
    for (const StoreFinding& finding : file.check.findings) {
      const bool isDamage = counts && finding.health == StoreFinding::Health::kDamage;
      AddRow(FindingRow(file.path, finding, isDamage));
    }
    if (file.check.unlisted > 0) {
      const std::string more = std::to_string(file.check.unlisted) + " further findings";
      AddRow(FindingRow(file.path, {.line = 0, .code = "more", .key = "", .detail = more}, counts));
    }
    if (counts && file.check.Damage() > 0) m_IsDamaged = true;
  }

  ExitCode Print(Output& out) const {
    out.Print({"registry-verify"}, m_Table, {{"files", m_Files}, {"findings", m_Findings}});
    return m_IsDamaged ? ExitCode::kInputDamaged : ExitCode::kDone;
  }

 private:
  void AddRow(Json row) {
    m_Findings.push_back(row);
    m_Table.Add(std::move(row));
  }

  Table m_Table;
  Json m_Files = Json::array();
  Json m_Findings = Json::array();
  bool m_IsDamaged = false;
};

ExitCode VerifyFile(const std::string& path, Output& out) {
  StoreFileState file = LookAtStoreFile(path);
  if (file.error != 0) throw SystemFailure("cannot read the file", path, file.error);
  file.reason = file.check.hasValueLine ? "a start could load it" : "a start could not load it";
  Report report;
  report.Add(file, true);
  return report.Print(out);
}

ExitCode VerifyStore(Output& out) {
  const std::vector<StoreFileState> files = SurveyStore();
  Report report;
  bool isAnyThere = false;
  const StoreFileState* refused = nullptr;
  for (const StoreFileState& file : files) {
    isAnyThere = isAnyThere || (file.Exists() && IsOfStart(file.path));
    if (file.Exists() && file.error != 0 && IsOfStart(file.path)) refused = &file;
    report.Add(file, IsOfStart(file.path));
  }
  if (!isAnyThere) throw SystemFailure("there is no registry", kStoreFile, ENOENT);
  const ExitCode code = report.Print(out);
  if (refused == nullptr) return code;
  throw SystemFailure("cannot read the registry", refused->path, refused->error);
}

}  // namespace

void AddRegistryVerify(CLI::App& registry) {
  auto file = std::make_shared<std::string>();
  CLI::App& verify =
      AddCommand(registry,
                 {"verify",
                  "Read the files of the registry strictly; exit status 5 when one is damaged",
                  {{"ravctl registry verify", "all files, and which of them a start loads"},
                   {"ravctl registry verify /etc/pelrix/registry.old", "one file"}}},
                 [file](Output& out) { return file->empty() ? VerifyStore(out) : VerifyFile(*file, out); });
  verify.add_option("FILE", *file, "A file in the text form of the registry");
}

}  // namespace ravctl
