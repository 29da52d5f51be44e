#pragma once

#include <stdexcept>
#include <string_view>

#include "platform/export.h"

namespace libnetif {

// The one failure report of the network interface library.
//
// what() is the text of the operation, followed, where the system gave an error number, by "\nError message: " and the
// system's text for that number: "Retriving interface mtu failed.\nError message: No such device".
class RAVD_EXPORT libnetif_exception : public std::runtime_error {
 public:
  // A failure without an error number, such as an interface without an address of the wanted family.
  explicit libnetif_exception(std::string_view text);
  // One of the system, with its errno value.
  libnetif_exception(std::string_view text, int error_number);

  // The errno value given at construction, 0 when there was none.
  int error_number() const noexcept { return m_error_number; }

 private:
  int m_error_number = 0;
};

}  // namespace libnetif
