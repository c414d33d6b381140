// Fuzzes patch application. Input: a 2-byte little-endian old-file length, the old file, then the patch.

#include <ZRVKit/ZRVException.h>
#include <ZRVKit/bsdiff.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  std::size_t oldLength = data[0] | (data[1] << 8);
  if (oldLength > size - 2) oldLength = size - 2;
  const ZRVData old(data + 2, data + 2 + oldLength);
  const ZRVData patch(data + 2 + oldLength, data + size);
  try {
    ZRVData result = bsdiff::patch(old, patch);
    // A patch that applies always yields exactly the size its header claims.
    if (static_cast<std::int64_t>(result.size()) != bsdiff::offtin(patch.data() + 24)) std::abort();
  } catch (const ZRVException& failure) {
    if (failure.name() != "bsdiff" && failure.name() != "bzip2") std::abort();
  } catch (const std::out_of_range&) {
  }
  return 0;
}
