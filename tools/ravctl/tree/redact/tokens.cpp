#include "ravctl/tree/redact/tokens.h"

#include <sys/random.h>

#include <bit>
#include <cerrno>
#include <cstring>

#include "ravctl/base/error.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace {

constexpr unsigned int kAttempts = 64;  // to find a token that no other secret has
constexpr size_t kMacDigits = 12;

struct SipState {
  uint64_t a, b, c, d;

  void Round() {
    a += b;
    b = std::rotl(b, 13) ^ a;
    a = std::rotl(a, 32);
    c += d;
    d = std::rotl(d, 16) ^ c;
    a += d;
    d = std::rotl(d, 21) ^ a;
    c += b;
    b = std::rotl(b, 17) ^ c;
    c = std::rotl(c, 32);
  }
  void Take(uint64_t word) {
    d ^= word;
    Round();
    Round();
    a ^= word;
  }
};

uint64_t SipHash(const std::array<uint64_t, 2>& key, std::string_view text) {
  SipState state = {key[0] ^ 0x736f6d6570736575, key[1] ^ 0x646f72616e646f6d, key[0] ^ 0x6c7967656e657261,
                    key[1] ^ 0x7465646279746573};
  const uint64_t length = uint64_t{text.size() & 0xFF} << 56;
  for (; text.size() >= sizeof(uint64_t); text.remove_prefix(sizeof(uint64_t))) {
    uint64_t word;
    std::memcpy(&word, text.data(), sizeof word);
    state.Take(word);
  }
  uint64_t last = 0;
  std::memcpy(&last, text.data(), text.size());
  state.Take(last | length);
  state.c ^= 0xFF;
  for (int round = 0; round < 4; ++round)
    state.Round();
  return state.a ^ state.b ^ state.c ^ state.d;
}

bool IsHexDigit(char character) {
  return (character >= '0' && character <= '9') || (character >= 'a' && character <= 'f') ||
         (character >= 'A' && character <= 'F');
}

}  // namespace

// The random numbers that belong to a secret.
class Tokens::Stream {
 public:
  Stream(const std::array<uint64_t, 2>& key, std::string seed) : m_Key(key), m_Seed(std::move(seed)) {}

  unsigned int Below(unsigned int limit) {
    m_Seed += static_cast<char>(++m_Count);
    return static_cast<unsigned int>(SipHash(m_Key, m_Seed) % limit);
  }
  char Digit() { return static_cast<char>('0' + Below(10)); }
  char HexDigit() { return kLowerHex[Below(16)]; }

 private:
  const std::array<uint64_t, 2>& m_Key;
  std::string m_Seed;
  unsigned char m_Count = 0;
};

Tokens::Tokens() {
  if (::getrandom(m_Key.data(), sizeof m_Key, 0) != static_cast<ssize_t>(sizeof m_Key)) {
    throw SystemFailure("cannot redact", "random numbers", errno);
  }
}

template <typename Make>
std::string Tokens::Unique(char kind, std::string_view secret, Make make) {
  const std::string name = kind + std::string(secret);
  if (const auto found = m_Tokens.find(name); found != m_Tokens.end()) return found->second;
  std::string token;
  for (unsigned int attempt = 0; attempt < kAttempts; ++attempt) {
    Stream stream(m_Key, name + '\0' + static_cast<char>(attempt));
    token = make(stream);
    if (token != secret && m_Used.insert(kind + token).second) break;
  }
  m_Tokens[name] = token;
  return token;
}

std::string Tokens::Name(std::string_view name) {
  return Unique('n', name, [name](Stream& random) {
    std::string token(name);
    for (char& character : token) {
      if (character >= '0' && character <= '9') character = random.Digit();
      if (character >= 'a' && character <= 'z') character = static_cast<char>('a' + random.Below(26));
      if (character >= 'A' && character <= 'Z') character = static_cast<char>('A' + random.Below(26));
    }
    return token;
  });
}

std::string Tokens::Hex(std::string_view digits) {
  return Unique('h', digits, [digits](Stream& random) {
    std::string token(digits);
    for (char& digit : token)
      digit = random.HexDigit();
    if (digits.size() == kMacDigits) {
      token.replace(0, 2, "02");
    } else if (!digits.empty()) {
      token[0] = digits[0];
    }
    return token;
  });
}

std::string Tokens::Uuid(std::string_view digits) {
  constexpr size_t kVersion = 12;
  constexpr size_t kVariant = 16;
  return Unique('u', digits, [digits](Stream& random) {
    std::string token(digits);
    for (char& digit : token)
      digit = random.HexDigit();
    token.at(kVersion) = '4';
    token.at(kVariant) = 'a';
    return token;
  });
}

std::string Tokens::IpV4(std::string_view address) {
  return Unique('4', address, [address](Stream& random) {
    std::string token;
    for (size_t at = 0; at < address.size();) {
      const size_t length = std::min(address.find('.', at), address.size()) - at;
      const unsigned int lowest = length == 1 ? 1 : length == 2 ? 10 : 128;
      const unsigned int highest = length == 1 ? 9 : length == 2 ? 99 : 223;
      token += (at == 0 ? "" : ".") + std::to_string(lowest + random.Below(highest - lowest + 1));
      at += length + 1;
    }
    return token;
  });
}

std::string Tokens::IpV6(std::string_view address) {
  const size_t dot = address.find('.');
  if (dot != std::string_view::npos) {
    const size_t colon = address.rfind(':', dot);
    return IpV6(address.substr(0, colon)) + ":" + IpV4(address.substr(colon + 1));
  }
  return Unique('6', address, [address](Stream& random) {
    std::string token(address);
    for (size_t at = 0; at < token.size(); ++at) {
      if (!IsHexDigit(token[at])) continue;
      token[at] = random.HexDigit();
      const bool isFirst = at == 0 || token[at - 1] == ':';
      if (isFirst && token[at] == '0') token[at] = 'd';
    }
    return token;
  });
}

}  // namespace ravctl
