#pragma once

#include <stdexcept>
#include <string>

// The exception of the agent library. It stays inside the components: whoever calls an operation that throws it turns
// it into a result.
class CAgtException : public std::runtime_error {
 public:
  explicit CAgtException(const std::string& text);
  // Adds the system's text for an errno value: ("No drive", ENOENT) => "No drive\nError message: No such file or
  // directory".
  CAgtException(const std::string& text, int errorNumber);
  ~CAgtException() override;
};
