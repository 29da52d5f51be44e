#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ravctl/answer/output.h"
#include "ravctl/line/command.h"

namespace ravctl {

// Shell pattern without regard to case.
bool MatchesWhole(std::string_view text, const std::string& pattern);
// The same; a pattern without * ? [ is looked for anywhere in the text.
bool MatchesPart(std::string_view text, const std::string& pattern);

// Which records a command is asked for: each option with a pattern must match its key, and one of the words anything.
class RecordFilter {
 public:
  // "--driver" looks at the key "driver". The filter must outlive the parsing.
  void AddOption(Command& command, const std::string& option, const std::string& key, const std::string& help);
  void AddMatchOption(Command& command);

  bool IsEmpty() const;
  bool Matches(const Json& record) const;
  // The records of the array that match.
  Json Select(const Json& records) const;

 private:
  struct KeyPatterns {
    std::string key;
    std::vector<std::string> patterns;
  };

  std::vector<std::unique_ptr<KeyPatterns>> m_Keys;
  std::vector<std::string> m_Anywhere;
};

}  // namespace ravctl
