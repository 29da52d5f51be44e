#pragma once

#include <string>
#include <string_view>

namespace ravctl {

// What a Content-Security-Policy allows a text by (W3C CSP Level 3): its SHA-256 (FIPS 180-4) in base64 (RFC 4648).
//   "" => "sha256-47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU="
std::string ContentHash(std::string_view text);

}  // namespace ravctl
