#pragma once
// Undoes bzip2's first run-length stage (four equal bytes, then a count of further copies) piece by piece, as
// a reader asks for bytes, and keeps the CRC of what it put out. A block's bytes before this stage are at most
// its size; after it they may be some 50 times that, so they are only made as they are read.

#include <cstddef>
#include <cstdint>

namespace zrv::bzip2 {

class BZip2RunExpansion {
 public:
  /// Starts on `length` bytes that must stay in place until the expansion is done.
  void start(const std::uint8_t* bytes, std::size_t length);
  /// Up to `capacity` further bytes of the block; fewer only at its end, or where it turns out malformed.
  std::size_t expand(std::uint8_t* out, std::size_t capacity);
  /// Every byte is out, and the block was well formed.
  bool finished() const;
  /// The block ends in four equal bytes without their count, which libbz2 refuses.
  bool malformed() const { return malformed_; }
  /// The CRC of the bytes put out so far, once `finished`.
  std::uint32_t crc() const { return ~crc_; }

 private:
  void findNextRun();

  const std::uint8_t* bytes_ = nullptr;
  std::size_t length_ = 0;
  std::size_t from_ = 0;        ///< the next byte not yet put out or read as a count
  std::size_t literalEnd_ = 0;  ///< where the bytes to copy as they are end (just after four equal ones)
  bool runFollows_ = false;     ///< a count byte is due at `literalEnd_`
  std::uint8_t repeatByte_ = 0;
  std::size_t repeatLeft_ = 0;
  bool malformed_ = false;
  std::uint32_t crc_ = 0xFFFFFFFFu;
};

}  // namespace zrv::bzip2
