#pragma once
// The last step of decoding a bzip2 block: following the inverse BWT's links from the block's first byte to
// its last. Each step is a cache miss that depends on the one before, so a single walk through a block is slow
// however fast the processor is. Several walks run at once instead, from starting points spread over the
// block, each until it reaches another walk's start; the pieces are then put in the order of the cycle.

#include <cstddef>
#include <cstdint>
#include <memory>

namespace zrv::bzip2::BZip2InverseTransform {

/// Room for the walks through blocks of up to the reserved length; kept with the decoder's other tables.
class Workspace {
 public:
  void reserve(std::size_t length);

 private:
  friend bool follow(const std::uint32_t* links, std::uint32_t count, std::uint32_t first, std::uint8_t* out,
                     Workspace& workspace);
  std::unique_ptr<std::uint64_t[]> starts_;     ///< a bit per link: a walk starts there
  std::unique_ptr<std::uint8_t[]> pages_;       ///< the walks' bytes, a page at a time
  std::unique_ptr<std::uint32_t[]> pageAfter_;  ///< the next page of the same walk
  std::size_t capacity_ = 0;
};

/// Writes the `count` bytes of the block whose links (the next link's index above the byte in the low eight
/// bits) are `links` to `out`, from the link at `first` on, exactly as following them one by one would (as
/// libbz2 does), also where they form more than one cycle. False only for links that point past `count`.
bool follow(const std::uint32_t* links, std::uint32_t count, std::uint32_t first, std::uint8_t* out,
            Workspace& workspace);

}  // namespace zrv::bzip2::BZip2InverseTransform
