#include "netif/libnetif_exception.h"

#include <cstring>
#include <string>

namespace libnetif {

namespace {

std::string message_of(std::string_view text, int error_number) {
  char buffer[128];
  return std::string(text) + "\nError message: " + ::strerror_r(error_number, buffer, sizeof buffer);
}

}  // namespace

libnetif_exception::libnetif_exception(std::string_view text) : std::runtime_error(std::string(text)) {}

libnetif_exception::libnetif_exception(std::string_view text, int error_number)
    : std::runtime_error(message_of(text, error_number)), m_error_number(error_number) {}

}  // namespace libnetif
