// Fuzzes patch application. Input: a 2-byte little-endian old-file length, the old file, then the patch. The
// patch is applied with the streams decoded block-parallel and sequentially; both must end alike.

#include "update/BZip2BlockPipeline.h"

#include <ZRVKit/ZRVException.h>
#include <ZRVKit/bsdiff.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string>

namespace {

/// The patched bytes, or the kind of failure.
std::string outcome(const ZRVData& old, const ZRVData& patch) {
  try {
    ZRVData result = bsdiff::patch(old, patch);
    // A patch that applies always yields exactly the size its header claims.
    if (static_cast<std::int64_t>(result.size()) != bsdiff::offtin(patch.data() + 24)) std::abort();
    return "applied " + std::string(result.begin(), result.end());
  } catch (const ZRVException& failure) {
    if (failure.name() != "bsdiff" && failure.name() != "bzip2") std::abort();
    return failure.name() + " " + failure.reason();
  } catch (const std::out_of_range&) {
    return "out of range";
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  std::size_t oldLength = data[0] | (data[1] << 8);
  if (oldLength > size - 2) oldLength = size - 2;
  const ZRVData old(data + 2, data + 2 + oldLength);
  const ZRVData patch(data + 2 + oldLength, data + size);
  BZip2BlockPipeline::minimumInputLength = 0;
  const std::string parallel = outcome(old, patch);
  BZip2BlockPipeline::minimumInputLength = std::numeric_limits<std::size_t>::max();
  if (outcome(old, patch) != parallel) std::abort();
  return 0;
}
