#include "platform/shell_command_interface.h"

#include <array>

namespace {

constexpr unsigned int kDefaultLength = 256;

// The place of a text is its code.
constexpr auto kErrorTexts = std::to_array<const char*>({
    "NoError",
    "NoResponse",
    "CreateCommandFailed",
    "SendCommandFailed",
    "NoInputStream",
    "ResponseEmpty",
    "ResponseNotParsable",
    "ResponseNotMatching",
    "CommandParamsInvalid",
    "CloseStreamFailed",
});
static_assert(kErrorTexts.size() == CShellCommandInterface::kCloseStreamFailed + 1);

}  // namespace

CShellCommandInterface::~CShellCommandInterface() {
  CloseStream();
}

bool CShellCommandInterface::CreateCommandStr(const std::string& text) {
  if (text.empty()) {
    lastError = kCreateCommandFailed;
    return false;
  }
  command = text;
  return true;
}

bool CShellCommandInterface::ExpandCommandStr(const std::string& part, bool withBlank) {
  if (part.empty()) {
    lastError = kCreateCommandFailed;
    return false;
  }
  if (withBlank) command += ' ';
  command += part;
  return true;
}

bool CShellCommandInterface::SendCommand() {
  CloseStream();
  stream = ::popen(command.c_str(), "re");
  if (stream != nullptr) return true;
  lastError = kSendCommandFailed;
  return false;
}

bool CShellCommandInterface::GetResponse(unsigned int maxLength) {
  if (stream == nullptr) {
    lastError = kNoInputStream;
    return false;
  }
  const unsigned int room = maxLength == 0 ? kDefaultLength : maxLength;
  response.clear();
  while (response.size() + 1 < room) {
    const int character = ::getc_unlocked(stream);
    if (character == EOF) break;
    response += static_cast<char>(character);
    if (character == '\n') break;
  }
  return !response.empty();
}

bool CShellCommandInterface::CloseStream() {
  if (stream == nullptr) return true;
  const int status = ::pclose(stream);
  stream = nullptr;
  if (status != -1) return true;
  lastError = kCloseStreamFailed;
  return false;
}

std::string CShellCommandInterface::GetLastErrorStr() const {
  return lastError < kErrorTexts.size() ? kErrorTexts[lastError] : "UnknownError";
}
