#pragma once

#include <string>
#include <vector>

#include "ravctl/answer/output.h"
#include "ravctl/tree/capture.h"

namespace ravctl {

inline constexpr auto kMissingFields = std::to_array<Field>({
    {"path", kText, "what is there and could not be captured"},
    {"reason", kText, "why"},
    {"needs_root", kBoolean, "whether root would get it"},
});
extern const Schema kManifest;

// How a bundle came about.
struct BundleOrigin {
  std::string host;
  std::string kernel;
  bool isRoot = false;
  bool hasTraces = false;
  bool isRedacted = false;
};

// Of this machine and this caller.
BundleOrigin DescribeOrigin();

// The manifest that belongs to the entries, as the last entry of the bundle.
CapturedEntry MakeManifest(const BundleOrigin& origin, const std::vector<CapturedEntry>& entries,
                           const std::vector<Uncaptured>& missing);

Json ToJson(const std::vector<Uncaptured>& missing);

}  // namespace ravctl
