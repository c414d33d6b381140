#pragma once
// Applying a patch held anywhere in memory, such as a patch file mapped read-only: `bsdiff::patch` without
// the patch having to be copied into a byte buffer first.

#include <ZRVKit/ZRVData.h>

#include <cstddef>
#include <cstdint>

namespace zrv::bsdiff {

/// `bsdiff::patch(old, patch)` for the `size` patch bytes at `patch`, with the same failures.
ZRVData patchFromBytes(const ZRVData& old, const std::uint8_t* patch, std::size_t size);

}  // namespace zrv::bsdiff
