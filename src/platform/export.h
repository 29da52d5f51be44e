#pragma once

// Marks what libravagent offers to modules and programs; everything else stays inside. For the executable it means
// nothing: that exports the trace object alone.
#define RAVD_EXPORT __attribute__((visibility("default")))
