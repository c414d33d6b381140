#pragma once
// libbz2 alone, decoding a whole stream: the reference the library's bzip2 decoders are held to, by the tests
// and by the fuzz targets alike.

#include <bzlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace libbz2 {

struct Decoded {
  std::string bytes;
  bool finished = false;  ///< reached the end-of-stream mark; otherwise it failed, or reached the cap
  bool capped = false;    ///< stopped at the cap, neither finished nor failed
};

/// The stream at `data` as libbz2 decodes it, up to `cap` bytes.
inline Decoded decode(const std::uint8_t* data, std::size_t size, std::size_t cap = SIZE_MAX) {
  bz_stream stream{};
  if (BZ2_bzDecompressInit(&stream, 0, 0) != BZ_OK) std::abort();
  stream.next_in = const_cast<char*>(reinterpret_cast<const char*>(data));
  stream.avail_in = static_cast<unsigned int>(size);
  Decoded decoded;
  for (bool ended = false; !ended;) {
    if (decoded.bytes.size() >= cap) {
      decoded.capped = true;
      break;
    }
    char buffer[65536];
    stream.next_out = buffer;
    stream.avail_out = sizeof buffer;
    const int result = BZ2_bzDecompress(&stream);
    const std::size_t made = sizeof buffer - stream.avail_out;
    decoded.bytes.append(buffer, made);
    decoded.finished = result == BZ_STREAM_END;
    // A stream cut off before its end mark makes libbz2 answer BZ_OK without progress: a failure too.
    ended = decoded.finished || result != BZ_OK || (made == 0 && stream.avail_in == 0);
  }
  BZ2_bzDecompressEnd(&stream);
  decoded.bytes.resize(std::min(decoded.bytes.size(), cap));
  return decoded;
}

/// Whether a decoder that put out `own` and then finished (or failed) ends as libbz2 did. Where a stream
/// fails, how much libbz2 puts out before it says so depends on its output buffer, so the bytes need only
/// agree as far as both go; a finished stream must give exactly libbz2's bytes.
inline bool endsAlike(const std::string& own, bool ownFinished, bool ownCapped, const Decoded& reference) {
  const std::size_t common = std::min(own.size(), reference.bytes.size());
  if (own.compare(0, common, reference.bytes, 0, common) != 0) return false;
  if (ownCapped || reference.capped) return true;
  return ownFinished == reference.finished && (!ownFinished || own.size() == reference.bytes.size());
}

}  // namespace libbz2
