#pragma once

#include <vector>

#include "ravctl/tree/capture.h"
#include "ravctl/tree/manifest.h"

namespace ravctl {

// Takes serial numbers, MAC and IP addresses, WWNs, UUIDs, host names and names that users chose out of everything that
// goes into the bundle: contents, names and link targets of the entries, what is said about missing files, and the
// origin. Lines of hexadecimal dumps in traces are blanked. Packed traces are unpacked and packed anew; one that is
// damaged, or too large when unpacked, is left out and stands among the missing.
void RedactAll(std::vector<CapturedEntry>& entries, std::vector<Uncaptured>& missing, BundleOrigin& origin);

}  // namespace ravctl
