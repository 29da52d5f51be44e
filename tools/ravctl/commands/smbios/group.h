#pragma once

#include <CLI/CLI.hpp>

#include "ravctl/answer/output.h"
#include "ravctl/hardware/smbios_image.h"

namespace ravctl {

void RegisterSmbios(CLI::App& root);

// What smbios verify finds: rows of health, check, subject and finding.
Table VerifySmbios(const SmbiosImage& image, bool& isDamaged);

}  // namespace ravctl
