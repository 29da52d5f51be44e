#include "ravctl/registry/store_findings.h"

namespace ravctl {

Findings FindingsOf(const std::string& path, const StoreCheck& check, bool isOfStart) {
  Findings findings;
  const auto add = [&](bool isDamage, const std::string& code, const std::string& place, const std::string& what) {
    const bool isBad = isDamage && isOfStart;
    findings.push_back({isBad ? Severity::kBad : Severity::kNote, code, place, what,
                        isBad ? "ravctl registry recover takes a whole file" : ""});
  };
  for (const StoreFinding& found : check.findings) {
    add(found.health == StoreFinding::Health::kDamage, found.code,
        path + (found.line > 0 ? ":" + std::to_string(found.line) : ""),
        found.detail + (found.key.empty() ? "" : " in " + found.key));
  }
  if (check.unlisted > 0) add(true, "more", path, std::to_string(check.unlisted) + " further findings");
  return findings;
}

}  // namespace ravctl
