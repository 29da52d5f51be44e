#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/unique_fd.h"
#include "ravctl/answer/json.h"
#include "ravctl/answer/output.h"
#include "ravctl/report/page.h"

namespace ravctl {

// Puts answers as --json prints them into a page. Each is written in a child of its own, beside the others: what brings
// one down, such as a hostile file, leaves the rest. Nothing is said on the standard error of the process from then on:
// a failure and each warning are part of the answer.
//
// For a process with one thread. Throws CommandError when a child cannot be made, or the page cannot be written.
class AnswerCollector {
 public:
  // The page is borrowed.
  explicit AnswerCollector(PageWriter& page);
  AnswerCollector(const AnswerCollector&) = delete;
  AnswerCollector& operator=(const AnswerCollector&) = delete;

  // What the answers that are started from then on are about.
  void SetRoot(const std::string& root) { m_Root = root; }

  // write: in the child; an exception that it throws becomes the answer.
  void Start(const std::string& id, const std::function<void(Output& out)>& write);
  // Waits for all that were started, and puts them into the page in that order.
  void Collect();

  size_t Count() const { return m_Count; }
  // [{answer, reason}] of those that are failures.
  const Json& Missing() const { return m_Missing; }

 private:
  struct Started {
    std::string id;
    UniqueFd reader;
    pid_t child;
  };

  bool IsWritten(const std::function<void(Output& out)>& write) const;
  std::string TakeOver(const Started& started);

  PageWriter& m_Page;
  std::string m_Root = "/";
  std::vector<Started> m_Started;
  size_t m_Count = 0;
  Json m_Missing = Json::array();
};

}  // namespace ravctl
