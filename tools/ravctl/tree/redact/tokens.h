#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>

namespace ravctl {

// Gives each secret a token of the same length and syntax: the same one for the same secret, different ones for
// different secrets. The tokens come from a keyed hash (SipHash-2-4); the key is random and never leaves the object, so
// that nobody can find a secret by trying candidates. One thread.
class Tokens {
 public:
  // Throws CommandError when the system gives no random bytes.
  Tokens();

  // Letters for letters, digits for digits, everything else as it is.
  std::string Name(std::string_view name);
  // Hexadecimal digits without separators, in lower case. A MAC address (12 digits) becomes a locally administered one,
  // other numbers keep their first digit, which tells the kind of a WWN.
  std::string Hex(std::string_view digits);
  // 32 digits; version and variant of the token are those of a random UUID.
  std::string Uuid(std::string_view digits);
  // "10.0.0.15"; each number of the token has as many digits.
  std::string IpV4(std::string_view address);
  // The colons and the lengths of the groups stay.
  std::string IpV6(std::string_view address);

 private:
  class Stream;
  template <typename Make>
  std::string Unique(char kind, std::string_view secret, Make make);

  std::array<uint64_t, 2> m_Key{};
  std::map<std::string, std::string, std::less<>> m_Tokens;  // by kind and secret
  std::set<std::string, std::less<>> m_Used;                 // kind and token
};

}  // namespace ravctl
