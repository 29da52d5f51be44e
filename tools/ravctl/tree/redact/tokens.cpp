#include "ravctl/tree/redact/tokens.h"

#include <sys/random.h>

#include <algorithm>
#include <cerrno>

#include "ravctl/base/error.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace {

constexpr unsigned int kAttempts = 64;  // to find a token that no other identity has
constexpr size_t kMacDigits = 12;
constexpr size_t kGroupDigits = 4;

bool IsDigit(char character) {
  return character >= '0' && character <= '9';
}

}  // namespace

const std::string& Tokens::Of(TokenForm form, const std::string& identity) {
  const auto [place, isNew] = m_Tokens.try_emplace(identity);
  std::string& token = place->second;
  for (unsigned int attempt = 0; isNew && attempt < kAttempts; ++attempt) {
    token = Make(form, identity);
    if (token != identity && m_Used.insert(token).second) break;
  }
  return token;
}

unsigned int Tokens::Below(unsigned int limit) {
  if (m_Left == 0) {
    for (size_t got = 0; got < sizeof m_Random;) {
      const ssize_t more = ::getrandom(reinterpret_cast<char*>(m_Random.data()) + got, sizeof m_Random - got, 0);
      if (more < 0 && errno != EINTR) throw SystemFailure("cannot redact", "random numbers", errno);
      got += static_cast<size_t>(std::max<ssize_t>(more, 0));
    }
    m_Left = m_Random.size();
  }
  return m_Random[--m_Left] % limit;
}

std::string Tokens::Make(TokenForm form, std::string_view identity) {
  if (form == TokenForm::kIpV4) return MakeIpV4(identity);
  std::string token(identity);
  bool isInFront = false;  // of the first digit of a group that is not zero
  for (size_t at = 0; at < token.size(); ++at) {
    if (at % kGroupDigits == 0) isInFront = true;
    char& character = token[at];
    if (form == TokenForm::kWord) {
      if (IsDigit(character)) character = static_cast<char>('0' + Below(10));
      if (character >= 'a' && character <= 'z') character = static_cast<char>('a' + Below(26));
    } else if (form == TokenForm::kHex) {
      character = kLowerHex[Below(16)];
    } else if (!isInFront || character != '0') {
      character = isInFront ? kLowerHex[1 + Below(15)] : kLowerHex[Below(16)];
      isInFront = false;
    }
  }
  if (form == TokenForm::kHex && token.size() == kMacDigits) token.replace(0, 2, "02");
  if (form == TokenForm::kHex && token.size() > kMacDigits) token[0] = identity[0];
  return token;
}

std::string Tokens::MakeIpV4(std::string_view address) {
  std::string token;
  for (size_t at = 0; at < address.size();) {
    const size_t length = std::min(address.find('.', at), address.size()) - at;
    const unsigned int lowest = length == 1 ? 1 : length == 2 ? 10 : 128;
    const unsigned int highest = length == 1 ? 9 : length == 2 ? 99 : 223;
    token += (at == 0 ? "" : ".") + std::to_string(lowest + Below(highest - lowest + 1));
    at += length + 1;
  }
  return token;
}

}  // namespace ravctl
