#pragma once
// Applying a patch held anywhere in memory, such as a patch file mapped read-only: `bsdiff::patch` without
// the patch having to be copied into a byte buffer first, and, for large files, without the new file being
// held either.

#include <ZRVKit/ZRVData.h>

#include <cstddef>
#include <cstdint>
#include <functional>

namespace zrv::bsdiff {

/// `bsdiff::patch(old, patch)` for the `size` patch bytes at `patch`, with the same failures.
ZRVData patchFromBytes(const ZRVData& old, const std::uint8_t* patch, std::size_t size);

/// The same patch with the new file written to `fd` (from its offset) through a fixed buffer instead of being
/// returned. The failures of a corrupt patch are thrown exactly as by `patchFromBytes`; only when the patch
/// applied through does the output's fate count: 0 when every byte was written, else the errno of the first
/// failed write (EFBIG once more than `maxBytes` would be written, EBADF for a negative `fd`). Every few MiB
/// written `releasePages` (if set) is called, so that a caller whose old file and patch are mapped can let go
/// of the pages already read.
int patchToDescriptor(const std::uint8_t* old, std::size_t oldSize, const std::uint8_t* patch, std::size_t size, int fd,
                      std::uint64_t maxBytes, const std::function<void()>& releasePages);

}  // namespace zrv::bsdiff
