#include "ravctl/base/gzip.h"

#include <zlib.h>

#include <memory>
#include <new>
#include <vector>

namespace ravctl {

namespace {

constexpr int kGzipWindow = 16 + MAX_WBITS;
constexpr size_t kPiece = size_t{1} << 20;

// zlib takes what it reads by a pointer to data that it does not change.
Bytef* Input(std::string_view text) {
  return reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
}

}  // namespace

bool IsGzip(std::string_view head) {
  return head.starts_with("\x1f\x8b");
}

const char* UnpackGzip(const std::function<std::string_view()>& next,
                       const std::function<bool(std::string_view)>& take) {
  z_stream stream{};
  if (inflateInit2(&stream, kGzipWindow) != Z_OK) throw std::bad_alloc();
  const std::unique_ptr<z_stream, decltype([](z_stream* each) { inflateEnd(each); })> owner(&stream);
  std::vector<char> room(kPiece);
  int result = Z_OK;
  while (true) {
    if (stream.avail_in == 0) {
      const std::string_view packed = next();
      if (packed.empty()) return result == Z_STREAM_END ? nullptr : "its end is missing";
      stream.next_in = Input(packed);
      stream.avail_in = static_cast<uInt>(packed.size());
    }
    if (result == Z_STREAM_END) inflateReset(&stream);
    do {
      stream.next_out = reinterpret_cast<Bytef*>(room.data());
      stream.avail_out = static_cast<uInt>(room.size());
      result = inflate(&stream, Z_NO_FLUSH);
      if (!take({room.data(), room.size() - stream.avail_out})) return nullptr;
      if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR)
        return stream.msg != nullptr ? stream.msg : "damaged";
    } while (stream.avail_out == 0 && result != Z_STREAM_END);
  }
}

std::string PackGzip(std::string_view content) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindow, 8, Z_DEFAULT_STRATEGY) != Z_OK)
    throw std::bad_alloc();
  std::string packed(deflateBound(&stream, static_cast<uLong>(content.size())) + 32, '\0');
  stream.next_in = Input(content);
  stream.avail_in = static_cast<uInt>(content.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  deflate(&stream, Z_FINISH);
  packed.resize(packed.size() - stream.avail_out);
  deflateEnd(&stream);
  return packed;
}

}  // namespace ravctl
