#include "ravctl/ini/ini_check.h"

#include "ravctl/ini/ini_scan.h"

namespace ravctl {

Findings CheckIni(const std::string& path, std::string_view content) {
  Findings findings;
  for (const IniFinding& found : ScanIni(content).findings) {
    findings.push_back({found.isDamage ? Severity::kBad : Severity::kNote, found.kind,
                        path + ":" + std::to_string(found.line), found.text});
  }
  return findings;
}

}  // namespace ravctl
