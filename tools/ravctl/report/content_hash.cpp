#include "ravctl/report/content_hash.h"

#include <nettle/base64.h>
#include <nettle/sha2.h>

#include <array>

namespace ravctl {

std::string ContentHash(std::string_view text) {
  sha256_ctx hash;
  sha256_init(&hash);
  sha256_update(&hash, text.size(), reinterpret_cast<const uint8_t*>(text.data()));
  std::array<uint8_t, SHA256_DIGEST_SIZE> digest{};
  sha256_digest(&hash, digest.size(), digest.data());
  std::array<char, BASE64_ENCODE_RAW_LENGTH(SHA256_DIGEST_SIZE)> base64{};
  base64_encode_raw(base64.data(), digest.size(), digest.data());
  return "sha256-" + std::string(base64.data(), base64.size());
}

}  // namespace ravctl
