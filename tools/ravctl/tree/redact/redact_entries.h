#pragma once

#include <vector>

#include "ravctl/tree/capture.h"
#include "ravctl/tree/manifest.h"

namespace ravctl {

// Takes serial numbers, MAC and IP addresses, WWNs, UUIDs and host names out of everything that goes into the bundle:
// contents, names and link targets of the entries, what is said about missing files, and the origin. Packed traces are
// unpacked and packed anew; lines of hexadecimal dumps in traces are blanked, since a secret may be cut anywhere there.
void RedactAll(std::vector<CapturedEntry>& entries, std::vector<Uncaptured>& missing, BundleOrigin& origin);

}  // namespace ravctl
