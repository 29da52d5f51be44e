#pragma once

#include <set>
#include <string>
#include <vector>

#include "ravctl/answer/output.h"
#include "ravctl/commands/inventory/group.h"

namespace ravctl {

// Two inventories as inventory diff and inventory watch compare them. A device is known again by its identity wherever
// it sits, else by its place, else by its model.

struct Differences {
  Table rows{kInventoryDiff};
  // What the other side alone tells, so that it was not compared: "memory modules".
  std::vector<std::string> missingBefore, missingAfter;
  std::set<std::string> oneSided;  // the fields in which nothing could be compared, as one side does not know them
};

// The sides as sides.h reads them. withUsage: how full volumes are counts, too. Throws CommandError for a registry that
// is none.
Differences CompareSides(const Json& before, const Json& after, bool withUsage);

// Whether the data of an inventory have what a comparison needs; lists that came later may be missing.
bool IsComparable(const Json& data);

}  // namespace ravctl
