#include "trace/debug.h"

#include <gtest/gtest.h>

#include "support/fixture_root.h"
#include "support/trace_capture.h"

TEST(Debug, LevelDecidesWhatIsWritten) {
  const FixtureRoot root;
  root.Run([] {
    const TraceCapture trace(2);
    TRACE(2, "\n\nwritten");
    TRACE(3, "too fine");
    EXPECT_EQ(trace.Lines(), std::vector<std::string>{"written"});
  });
}
