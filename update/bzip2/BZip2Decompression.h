#pragma once
// Decompressing a bzip2 stream into a file that the caller has already opened (without following links).

#include <ZRVKit/ZRVData.h>
#include <ZRVKit/ZRVError.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

namespace zrv::bzip2 {

/// No game file comes near this; a stream that decompresses to more is a bomb, and decompressing it to disk
/// fails like a write failure (domain "BZip2", code EFBIG) once the limit is reached.
inline constexpr std::uint64_t kMaxDecompressedFileSize = std::uint64_t{8} << 30;

/// `decompressBZIP2CompressedDataToURL` into `fd` (from its current offset; the descriptor stays open), with
/// at most `maxBytes` of output.
bool decompressBZIP2ToDescriptor(const ZRVData& data, int fd, std::uint64_t maxBytes, std::optional<ZRVError>* error);

/// The same for the `size` bytes at `data`, typically a downloaded file mapped read-only: every few MiB of
/// output `releaseInput` (if set) is called to let go of the input pages already read.
bool decompressBZIP2ToDescriptor(const std::uint8_t* data, std::size_t size, int fd, std::uint64_t maxBytes,
                                 std::optional<ZRVError>* error, const std::function<void()>& releaseInput);

}  // namespace zrv::bzip2
