#pragma once

#include "ravctl/answer/finding.h"
#include "ravctl/hardware/smbios_image.h"

namespace ravctl {

// Checks entry point and table strictly against DMTF DSP0134.
Findings CheckSmbios(const SmbiosImage& image);

}  // namespace ravctl
