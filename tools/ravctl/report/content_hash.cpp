#include "ravctl/report/content_hash.h"

#include <array>
#include <bit>
#include <cstdint>

namespace ravctl {

namespace {

constexpr size_t kBlock = 64;  // bytes

constexpr std::array<uint32_t, 64> kRounds = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

using Digest = std::array<uint32_t, 8>;

uint32_t WordAt(std::string_view bytes, size_t at) {
  uint32_t word = 0;
  for (size_t index = at; index < at + 4; ++index)
    word = word << 8 | static_cast<unsigned char>(bytes[index]);
  return word;
}

void AddBlock(std::string_view block, Digest& digest) {
  std::array<uint32_t, 64> words{};
  for (size_t index = 0; index < 16; ++index)
    words[index] = WordAt(block, 4 * index);
  for (size_t index = 16; index < words.size(); ++index) {
    const uint32_t near = words[index - 15], far = words[index - 2];
    words[index] = words[index - 16] + (std::rotr(near, 7) ^ std::rotr(near, 18) ^ near >> 3) + words[index - 7] +
                   (std::rotr(far, 17) ^ std::rotr(far, 19) ^ far >> 10);
  }
  auto [a, b, c, d, e, f, g, h] = digest;
  for (size_t index = 0; index < words.size(); ++index) {
    const uint32_t first = h + (std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25)) + ((e & f) ^ (~e & g)) +
                           kRounds[index] + words[index];
    const uint32_t second = (std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
    h = g, g = f, f = e, e = d + first;
    d = c, c = b, b = a, a = first + second;
  }
  const Digest sum = {a, b, c, d, e, f, g, h};
  for (size_t index = 0; index < digest.size(); ++index)
    digest[index] += sum[index];
}

std::string Sha256(std::string_view text) {
  Digest digest = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  const size_t whole = text.size() / kBlock * kBlock;
  for (size_t at = 0; at < whole; at += kBlock)
    AddBlock(text.substr(at, kBlock), digest);
  std::string rest(text.substr(whole));
  rest += '\x80';
  rest.append((2 * kBlock - 8 - rest.size()) % kBlock, '\0');
  for (int shift = 56; shift >= 0; shift -= 8)
    rest += static_cast<char>(uint64_t{text.size()} * 8 >> shift);
  for (size_t at = 0; at < rest.size(); at += kBlock)
    AddBlock(std::string_view(rest).substr(at, kBlock), digest);
  std::string bytes;
  for (const uint32_t word : digest) {
    for (int shift = 24; shift >= 0; shift -= 8)
      bytes += static_cast<char>(word >> shift);
  }
  return bytes;
}

std::string Base64(std::string_view bytes) {
  constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (size_t at = 0; at < bytes.size(); at += 3) {
    std::string group(bytes.substr(at, 3));
    const size_t known = group.size();
    group.resize(4);  // with a byte that is not looked at
    const uint32_t bits = WordAt(group, 0);
    for (size_t digit = 0; digit < 4; ++digit)
      text += digit > known ? '=' : kDigits[bits >> (26 - 6 * digit) & 63];
  }
  return text;
}

}  // namespace

std::string ContentHash(std::string_view text) {
  return "sha256-" + Base64(Sha256(text));
}

}  // namespace ravctl
