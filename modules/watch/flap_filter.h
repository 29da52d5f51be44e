#pragma once

#include <cstdint>
#include <map>
#include <string>

// Damps what comes and goes again and again: of one thing kTold changes an hour are told, then no more until it has
// been quiet for an hour. Used by one thread; time is passed in, in seconds.
class FlapFilter {
 public:
  static constexpr unsigned int kTold = 4;
  static constexpr int64_t kQuietSeconds = 3600;

  enum class Verdict { kTell, kLast, kSilent };  // kLast: tell it, and that there will be silence
  Verdict Take(const std::string& what, int64_t now);

 private:
  struct History {
    int64_t last = 0;
    int64_t first = 0;  // of those that are counted
    unsigned int count = 0;
  };
  std::map<std::string, History> m_Histories;
};
