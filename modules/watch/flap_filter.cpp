#include "watch/flap_filter.h"

FlapFilter::Verdict FlapFilter::Take(const std::string& what, int64_t now) {
  // What has been quiet is forgotten, so that the map does not grow.
  std::erase_if(m_Histories, [now](const auto& entry) { return now - entry.second.last >= kQuietSeconds; });
  History& history = m_Histories[what];
  history.last = now;
  if (history.count == 0 || (history.count < kTold && now - history.first >= kQuietSeconds)) {
    history.first = now;
    history.count = 0;
  }
  ++history.count;
  if (history.count < kTold) return Verdict::kTell;
  return history.count == kTold ? Verdict::kLast : Verdict::kSilent;
}
