#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace ravctl {

// What stands in an identity, and so in its token.
enum class TokenForm {
  kWord,  // letters for letters, digits for digits
  kHex,   // hexadecimal digits; a MAC address becomes a locally administered one, others keep their first digit, which
          // tells the kind of a WWN
  kIpV4,  // "10.0.0.15": each number keeps as many digits
  kIpV6,  // 32 digits: zeros in front of a group stay, so that every way to shorten the address stays possible
};

// Random tokens of the same length and form for identities in lower case: the same one for the same identity, different
// ones for different identities. Nothing of the identity but its form is in them. One thread.
class Tokens {
 public:
  // Throws CommandError when the system gives no random bytes. The reference lives as long as the object.
  const std::string& Of(TokenForm form, const std::string& identity);

 private:
  unsigned int Below(unsigned int limit);
  std::string Make(TokenForm form, std::string_view identity);
  std::string MakeIpV4(std::string_view address);

  std::array<uint32_t, 1024> m_Random{};
  size_t m_Left = 0;  // random numbers that were not used yet
  std::unordered_map<std::string, std::string> m_Tokens;
  std::unordered_set<std::string> m_Used;
};

}  // namespace ravctl
