#pragma once

// Asks the suite's smbus kernel driver for its version and capabilities and writes the answer to the trace.
//
// Informational: nothing is kept, and whatever the outcome the caller goes on. A driver that is missing or does not
// answer yields one line that is always written, a driver newer than this daemon a warning. Main thread, at start.
void DiscoverSmbusDriverInfo();
