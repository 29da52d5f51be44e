// registry verify: read the files of the registry strictly and say what a start would do with them.

#include <algorithm>
#include <cerrno>

#include "ravctl/answer/json.h"
#include "ravctl/base/times.h"
#include "ravctl/commands/registry/group.h"
#include "ravctl/registry/store_files.h"
#include "ravctl/registry/store_findings.h"
#include "ravctl/registry/store_survey.h"

namespace ravctl {

namespace {

Json FileObject(const StoreFileState& file) {
  const bool isRead = file.error == 0;
  return {{"file", file.path},
          {"exists", file.Exists()},
          {"bytes", isRead ? Json(file.bytes) : Json()},
          {"modified", isRead ? Json(LocalTimeText(file.modified)) : Json()},
          {"keys", isRead ? Json(file.check.keys) : Json()},
          {"values", isRead ? Json(file.check.values) : Json()},
          {"damage", isRead ? Json(file.check.Damage()) : Json()},
          {"loaded", file.isLoaded},
          {"reason", file.reason}};
}

Finding Summary(const StoreFileState& file) {
  const std::string counts =
      std::to_string(file.check.keys) + " keys, " + std::to_string(file.check.values) + " values; ";
  const bool isWhole = file.IsWhole();
  const char* check = !file.Exists() ? "missing" : file.error != 0 ? "unreadable" : isWhole ? "whole" : "not whole";
  return {isWhole ? Severity::kGood : Severity::kNote, check, file.path, (file.error == 0 ? counts : "") + file.reason};
}

// What a file that no start loads lacks harms nobody.
bool IsOfStart(const std::string& path) {
  return std::ranges::find(kStartOrder, path) != kStartOrder.end();
}

class Report {
 public:
  void Add(const StoreFileState& file, bool isOfStart) {
    m_Files.push_back(FileObject(file));
    m_Findings.push_back(Summary(file));
    for (const Finding& finding : FindingsOf(file.path, file.check, isOfStart))
      m_Findings.push_back(finding);
  }

  ExitCode Print(Output& out) const {
    const Table table = FindingTable(m_Findings);
    out.Print(kRegistryVerify, table, {{"files", m_Files}, {"findings", table.ToJson()}});
    return WorstOf(m_Findings) == Severity::kBad ? ExitCode::kInputDamaged : ExitCode::kDone;
  }

 private:
  Json m_Files = Json::array();
  Findings m_Findings;
};

ExitCode VerifyFile(const std::string& path, Output& out) {
  StoreFileState file = LookAtStoreFile(path);
  if (file.error != 0) throw SystemFailure("cannot read", path, file.error);
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

void AddRegistryVerify(Command& registry) {
  auto file = std::make_shared<std::string>();
  Command& verify =
      registry.Add({"verify",
                    "Read the files of the registry strictly; exit status 5 when one is damaged",
                    {{"ravctl registry verify", "all files, and which of them a start loads"},
                     {"ravctl registry verify /etc/pelrix/registry.old", "one file"}}},
                   [file](Output& out) { return file->empty() ? VerifyStore(out) : VerifyFile(*file, out); });
  verify.Answers({&kRegistryVerify});
  verify.AddWord("FILE", file.get(), "A file in the text form of the registry");
}

}  // namespace ravctl
