#pragma once
// Decodes one bzip2 block on its own, several times faster than libbz2's output stage allows: runs are written
// with memset and the block CRC is computed eight bytes at a time. It only ever vouches for blocks it is sure
// libbz2 would decode to the same bytes; anything unusual (randomised blocks, incomplete or over-full Huffman
// codes, too many selectors, a missing end of block, a block that overruns its size, a CRC mismatch, bits left
// over before the next magic, ...) makes it answer `unsure`, and the caller lets libbz2 decide that block.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace zrv::bzip2 {

namespace BZip2BlockDecoder {

struct Chunk {
  std::unique_ptr<std::uint8_t[]> bytes;
  std::size_t length = 0;
};

/// Decoded bytes come in chunks of at most this many bytes.
constexpr std::size_t kChunkLength = 1 << 20;

enum class Result { decoded, unsure };

/// `skipped` only for comparing with libbz2, which puts out a block's bytes before it checks their CRC.
enum class CRCCheck { required, skipped };

/// Decodes the block whose bits run from `startBit` (its magic) to `endBit` (the next magic) of a stream whose
/// header carries `levelDigit` ('1' to '9'). `decoded`: the block's bytes are appended to `chunks`, its stored
/// CRC matched, and it used exactly the bits up to `endBit`. `unsure`: `chunks` is left as it was. Throws
/// std::bad_alloc when memory runs out (the caller's fallback then decides as well).
Result decode(const std::uint8_t* data, std::size_t length, std::uint64_t startBit, std::uint64_t endBit,
              std::uint8_t levelDigit, std::vector<Chunk>& chunks, CRCCheck check = CRCCheck::required);

/// The block's bytes as the inverse BWT leaves them, before bzip2's first run-length stage is undone: at most
/// the block size, where the block itself may expand to some 50 times that. `decoded` means the same as for
/// `decode`, except that the block's CRC is only known once the bytes are expanded (`RunExpansion`); the
/// stored CRC is handed back for that.
Result decodeRunLengthBytes(const std::uint8_t* data, std::size_t length, std::uint64_t startBit,
                            std::uint64_t endBit, std::uint8_t levelDigit, std::vector<std::uint8_t>& bytes,
                            std::uint32_t& storedCRC);

/// Undoes the first run-length stage (four equal bytes, then a count of further copies) piece by piece, as a
/// reader asks for bytes, and keeps the CRC of what it put out.
class RunExpansion {
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

}  // namespace BZip2BlockDecoder

}  // namespace zrv::bzip2
