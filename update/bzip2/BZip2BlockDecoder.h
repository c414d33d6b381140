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
/// `decode`, except that the block's CRC is only known once the bytes are expanded (`BZip2RunExpansion`); the
/// stored CRC is handed back for that.
Result decodeRunLengthBytes(const std::uint8_t* data, std::size_t length, std::uint64_t startBit,
                            std::uint64_t endBit, std::uint8_t levelDigit, std::vector<std::uint8_t>& bytes,
                            std::uint32_t& storedCRC);

}  // namespace BZip2BlockDecoder

}  // namespace zrv::bzip2
