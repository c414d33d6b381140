#pragma once
// One of the three streams of a patch (control, diff, extra), read forward from its start: stored raw
// ("BSDIFN40") or bzip2-compressed ("BSDIFF40"). Each runs from its start to the end of the patch.

#include "update/bzip2/BZip2StreamDecoder.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace zrv::bsdiff {

class PatchStream {
 public:
  PatchStream(const std::uint8_t* begin, std::size_t length, bool compressed);

  /// Reads up to `count` bytes into `out`; fewer only at the end of the stream or when it fails to decode.
  std::size_t read(std::uint8_t* out, std::size_t count);
  bool failed() const { return decoder_ && decoder_->state() == bzip2::BZip2StreamDecoder::State::failed; }
  /// Decodes the rest of the stream without keeping it; true when the whole stream decodes. `release`, if
  /// set, is called every few MiB decoded, for a caller whose patch is mapped.
  bool validate(const std::function<void()>& release = {});

 private:
  const std::uint8_t* raw_;
  std::size_t rawLength_;
  std::unique_ptr<bzip2::BZip2StreamDecoder> decoder_;
};

}  // namespace zrv::bsdiff
