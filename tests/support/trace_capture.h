#pragma once

#include "support/fixture_root.h"

// Reads back what the code under test traced. Inside FixtureRoot::Run only, or with it:
//
//   RunTraced(root, 5, [](TraceCapture& trace) {
//     ... code under test ...
//     EXPECT_TRUE(trace.Has("CFileLock::Lock     : nrRetries = 1"));
//   });
//
// Directs `Debug` to a log file of the fixture root, with that level and no limit of size.
class TraceCapture {
 public:
  explicit TraceCapture(unsigned int level);
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  // The texts traced since construction or the last Clear, one per line of the file, without their entry headers.
  std::vector<std::string> Lines() const;
  // All of them in one text, each with its end of line.
  std::string Text() const;
  // Which of these lines were not traced exactly so; "" when all were.
  std::string Missing(const std::string& lines) const;
  // Whether a line is exactly this text.
  bool Has(const std::string& line) const;
  // How many lines contain the text.
  int Count(const std::string& part) const;
  void Clear();

 private:
  size_t m_First = 0;
};

// Runs the body in the root and captures what it traces. mounts: as of FixtureRoot::Run.
void RunTraced(const FixtureRoot& root, unsigned int level, unsigned int mounts,
               const std::function<void(TraceCapture& trace)>& body);
inline void RunTraced(const FixtureRoot& root, unsigned int level,
                      const std::function<void(TraceCapture& trace)>& body) {
  RunTraced(root, level, FixtureRoot::kNone, body);
}
