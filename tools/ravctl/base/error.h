#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "ravctl/base/exit_code.h"

namespace ravctl {

// Ends a command. It becomes one line on the standard error: what happened, where, and what to do about it.
//
//   throw CommandError(ExitCode::kNotRunning, "the daemon does not run", "/var/run/ravd.pid", "start it first");
//   => ravctl: the daemon does not run: /var/run/ravd.pid (start it first)
//
// A damaged input whose good part was printed is no exception: warn (Output::Warn) and return kInputDamaged.
class CommandError : public std::runtime_error {
 public:
  // where and toDo may be empty.
  CommandError(ExitCode code, std::string_view what, std::string_view where, std::string_view toDo);

  ExitCode Code() const { return m_Code; }

 private:
  ExitCode m_Code;
};

// For a failed system call on a path: the exit code and the advice follow from the error number, which says "needs
// root" where the caller lacks a right. what: "cannot open".
CommandError SystemFailure(std::string_view what, std::string_view path, int error);

// "what: where (toDo)", with control bytes shown as \xNN and the empty parts left out.
std::string OneLine(std::string_view what, std::string_view where, std::string_view toDo);

}  // namespace ravctl
