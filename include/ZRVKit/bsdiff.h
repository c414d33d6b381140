#pragma once
// Applying binary patches in the bsdiff 4.0 format ("BSDIFF40": a 32-byte header and three bzip2 streams)
// and its uncompressed variant "BSDIFN40" (the same layout with the streams stored raw).
//
// Failures:
//  - ZRVException name "bsdiff", reason "Corrupt patch": wrong magic, a negative header field, a short control
//    triple, an add or copy step running past the new size, a diff or extra stream that is too short;
//  - ZRVException name "bzip2", reason "BZ2_bzDecompress failed": one of the three streams does not decode
//    (also when it ends before its end-of-stream mark);
//  - std::out_of_range: a patch under 32 bytes, a stream that starts beyond the end of the patch, or a control
//    triple with a negative add or copy length.
// Nothing is caught inside: no partial output is ever returned.
//
// A hostile patch cannot make the library reserve memory for a claimed new size that its streams do not
// deliver: the output grows with the bytes actually decoded.

#include <ZRVKit/ZRVData.h>
#include <ZRVKit/ZRVKitExport.h>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace bsdiff {

/// The new file made from `old` and `patch` (the same as `patch(old, patch)`).
ZRVKIT_EXPORT ZRVData dataWithData(const ZRVData& old, const ZRVData& patch);

/// Applies `patch` to a copy of `old`; std::nullopt when the copy cannot be made.
ZRVKIT_EXPORT std::optional<ZRVData> initWithData(const ZRVData& old, const ZRVData& patch);

/// The new file made from `old` and `patch`, or one of the failures above.
ZRVKIT_EXPORT ZRVData patch(const ZRVData& old, const ZRVData& patch);

/// The same new file written to the descriptor `fd` (from its offset) through a small buffer instead of being
/// held in memory, for files too large to hold; `old` and `patch` may be mapped files. The failures above are
/// thrown the same way (what was written by then is the caller's to discard); otherwise the result is 0 when
/// every byte was written, or the errno of the first write that failed.
ZRVKIT_EXPORT int writePatchedFile(const std::uint8_t* old, std::size_t oldSize, const std::uint8_t* patch,
                                   std::size_t patchSize, int fd);

/// The 8-byte sign-magnitude integer of the patch format: little-endian magnitude in the low 63 bits, the sign
/// in the top bit of the last byte (so 0x80 there with zeros elsewhere is a negative zero: 0).
ZRVKIT_EXPORT std::int64_t offtin(const std::uint8_t* bytes);

}  // namespace bsdiff
