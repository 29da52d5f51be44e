#pragma once

#include "ravctl/answer/json_name.h"

namespace ravctl {

// What a report says about a machine at its top that no answer of a command holds, of this process' root:
//
//   {host, time, time_zone, uptime_s, system, processors, memory_kb, modules: [{path, size, build_id}],
//    packages: [text], bundle: {tool, as_root, traces, redacted, missing: [{path, reason, needs_root}]}}
//
// What is not known is null; bundle is null for this machine and for a tree without a manifest. time is that of the
// answers, of a bundle that of its capture. Others may have written all of it.
Json ReadMachineFacts();

}  // namespace ravctl
