#include "inventory/agt_exception.h"

#include <cstring>

CAgtException::CAgtException(const std::string& text) : std::runtime_error(text) {}

CAgtException::CAgtException(const std::string& text, int errorNumber)
    : std::runtime_error(text + "\nError message: " + std::strerror(errorNumber)) {}

CAgtException::~CAgtException() = default;
