#pragma once

#include "ravctl/tree/capture.h"

// What no file of a machine holds, as texts in the folder ravctl of a bundle.
namespace ravctl {

inline constexpr const char* kUnitAnswer = "/ravctl/unit.txt";          // of the service manager, NAME=value
inline constexpr const char* kJournalAnswer = "/ravctl/journal.txt";    // the newest lines of the service's journal
inline constexpr const char* kKernelAnswer = "/ravctl/kernel.txt";      // the kernel's lines that name the daemon
inline constexpr const char* kPackagesAnswer = "/ravctl/packages.txt";  // those of the project, with their versions
inline constexpr const char* kModulesAnswer = "/ravctl/modules.txt";    // PATH SIZE BUILD-ID of what the daemon loads

// Captures them; each as far as its program is there and answers within five seconds.
void CaptureAnswers(Capture& capture);

}  // namespace ravctl
