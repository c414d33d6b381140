#include <ZRVKit/bsdiff.h>

#include "PatchApplication.h"
#include "PatchStream.h"

#include <ZRVKit/ZRVException.h>
#include <ZRVKit/ZRVExtensions.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>

namespace zrv::bsdiff {

namespace {

constexpr std::size_t kHeaderLength = 32;

ZRVException corruptPatch() { return ZRVException("bsdiff", "Corrupt patch"); }
ZRVException bzip2Failure() { return ZRVException("bzip2", "BZ2_bzDecompress failed"); }

/// Thrown inside the apply loop when a stream stops decoding; the caller turns it into the bzip2 failure
/// once it has ruled out failures that come first.
struct StreamFailure {};

std::out_of_range sliceOutOfRange(std::uint64_t offset, std::uint64_t length, std::size_t available) {
  return std::out_of_range("range {" + std::to_string(offset) + ", " + std::to_string(length) +
                           "} out of bounds; length " + std::to_string(available));
}

/// The new file, grown only as bytes actually arrive from the streams: a header that claims an enormous new
/// size costs nothing until the streams deliver that much.
class Output {
 public:
  Output(std::int64_t newSize, std::uint64_t expectedSupply) : limit_(static_cast<std::uint64_t>(newSize)) {
    bytes_.reserve(static_cast<std::size_t>(std::min(limit_, expectedSupply)));
  }

  /// Appends up to `count` bytes from `stream`; returns how many it got.
  std::uint64_t append(PatchStream& stream, std::uint64_t count) {
    std::uint64_t appended = 0;
    while (appended < count) {
      std::size_t size = bytes_.size();
      std::size_t chunk = static_cast<std::size_t>(std::min<std::uint64_t>(count - appended, std::max(kMinimumChunk, size)));
      reserveFor(size + chunk);
      bytes_.resize(size + chunk);
      std::size_t got = stream.read(bytes_.data() + size, chunk);
      bytes_.resize(size + got);
      appended += got;
      if (got < chunk) break;
    }
    return appended;
  }

  std::uint8_t* at(std::uint64_t position) { return bytes_.data() + position; }
  ZRVData take() { return std::move(bytes_); }

 private:
  static constexpr std::size_t kMinimumChunk = 64 * 1024;

  void reserveFor(std::size_t needed) {
    if (needed <= bytes_.capacity()) return;
    std::uint64_t grown = std::max<std::uint64_t>(needed, 4 * static_cast<std::uint64_t>(bytes_.size()));
    bytes_.reserve(static_cast<std::size_t>(std::min(limit_, grown)));
  }

  std::uint64_t limit_;
  ZRVData bytes_;
};

/// Adds old bytes to the `length` diff bytes at `target`, where `oldPosition` may lie partly or wholly outside
/// the old file; bytes without an old counterpart stay as they are.
void addOldBytes(std::uint8_t* target, std::uint64_t length, const ZRVData& old, std::int64_t oldPosition) {
  const std::uint64_t oldSize = old.size();
  const auto position = static_cast<std::uint64_t>(oldPosition);  // two's complement: -n is 2^64 - n
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  if (oldPosition < 0) {
    first = std::min(length, 0 - position);
    last = std::min(length, oldSize - position);  // oldSize + |oldPosition|, below 2^64
  } else if (position < oldSize) {
    last = std::min(length, oldSize - position);
  }
  if (first >= last) return;
  std::uint8_t* into = target + first;
  const std::uint8_t* from = old.data() + (position + first);  // the first index inside the old file
  for (std::uint64_t i = 0, count = last - first; i < count; ++i) into[i] = static_cast<std::uint8_t>(into[i] + from[i]);
}

std::out_of_range negativeLength(std::int64_t length) {
  return std::out_of_range("negative length " + std::to_string(length));
}

/// The control triples applied one by one, pulling diff and extra bytes as they are needed.
ZRVData applyTriples(const ZRVData& old, std::int64_t newSize, std::uint64_t expectedSupply, PatchStream& control,
                     PatchStream& diff, PatchStream& extra) {
  Output output(newSize, expectedSupply);
  std::int64_t newPosition = 0;
  std::int64_t oldPosition = 0;  // may wander far outside the old file; it wraps rather than overflowing
  while (newPosition < newSize) {
    std::uint8_t triple[24];
    if (control.read(triple, sizeof triple) < sizeof triple) {
      if (control.failed()) throw StreamFailure();
      throw corruptPatch();
    }
    const std::int64_t add = ::bsdiff::offtin(triple);
    const std::int64_t copy = ::bsdiff::offtin(triple + 8);
    const std::int64_t seek = ::bsdiff::offtin(triple + 16);

    if (add > newSize - newPosition) throw corruptPatch();
    if (add < 0) throw negativeLength(add);
    const auto addLength = static_cast<std::uint64_t>(add);
    if (output.append(diff, addLength) < addLength) {
      if (diff.failed()) throw StreamFailure();
      throw corruptPatch();
    }
    addOldBytes(output.at(static_cast<std::uint64_t>(newPosition)), addLength, old, oldPosition);
    newPosition += add;

    if (copy > newSize - newPosition) throw corruptPatch();
    if (copy < 0) throw negativeLength(copy);
    const auto copyLength = static_cast<std::uint64_t>(copy);
    if (output.append(extra, copyLength) < copyLength) {
      if (extra.failed()) throw StreamFailure();
      throw corruptPatch();
    }
    oldPosition = static_cast<std::int64_t>(static_cast<std::uint64_t>(oldPosition) + addLength +
                                            static_cast<std::uint64_t>(seek));
    newPosition += copy;
  }
  return output.take();
}

}  // namespace

}  // namespace zrv::bsdiff

namespace bsdiff {

std::int64_t offtin(const std::uint8_t* bytes) {
  std::uint64_t magnitude = bytes[7] & 0x7F;
  for (int i = 6; i >= 0; --i) magnitude = (magnitude << 8) | bytes[i];
  auto value = static_cast<std::int64_t>(magnitude);
  return (bytes[7] & 0x80) ? -value : value;
}

ZRVData patch(const ZRVData& old, const ZRVData& patchBytes) {
  return zrv::bsdiff::patchFromBytes(old, patchBytes.data(), patchBytes.size());
}

}  // namespace bsdiff

namespace zrv::bsdiff {

ZRVData patchFromBytes(const ZRVData& old, const std::uint8_t* patchData, std::size_t size) {
  using ::bsdiff::offtin;
  const ZRVData header =
      ZRVExtensions::subdata(ZRVData(patchData, patchData + std::min(size, kHeaderLength)), 0, kHeaderLength);
  bool compressed;
  if (std::memcmp(header.data(), "BSDIFF40", 8) == 0) {
    compressed = true;
  } else if (std::memcmp(header.data(), "BSDIFN40", 8) == 0) {
    compressed = false;
  } else {
    throw corruptPatch();
  }
  const std::int64_t controlLength = offtin(header.data() + 8);
  const std::int64_t diffLength = offtin(header.data() + 16);
  const std::int64_t newSize = offtin(header.data() + 24);
  if (controlLength < 0 || diffLength < 0 || newSize < 0) throw corruptPatch();

  // Every stream runs from its start to the end of the patch; the stored lengths only say where the next one
  // starts. For raw streams the control stream therefore also holds the diff and extra bytes behind it, which
  // is harmless because each stream is read from its own beginning.
  auto streamAt = [&](std::uint64_t start) { return PatchStream(patchData + start, size - start, compressed); };

  // The streams are decoded on demand, but a patch must fail the same way as if all three had been decoded in
  // full before the first triple: a damaged stream is a bzip2 failure even where the output never needs it,
  // and it outranks a stream start beyond the end of the patch that comes after it.
  PatchStream control = streamAt(kHeaderLength);
  const std::uint64_t diffStart = kHeaderLength + static_cast<std::uint64_t>(controlLength);
  if (diffStart > size) {
    if (!control.validate()) throw bzip2Failure();
    throw sliceOutOfRange(diffStart, 0, size);
  }
  PatchStream diff = streamAt(diffStart);
  const std::uint64_t extraStart = diffStart + static_cast<std::uint64_t>(diffLength);
  if (extraStart > size) {
    if (!control.validate() || !diff.validate()) throw bzip2Failure();
    throw sliceOutOfRange(extraStart, 0, size);
  }
  PatchStream extra = streamAt(extraStart);

  // What the diff and extra streams can supply: exact when stored raw; for bzip2 only a first guess, and the
  // output grows past it as the streams deliver.
  const std::uint64_t supply =
      compressed ? (std::uint64_t{1} << 20) + 8 * (size - diffStart) : (size - diffStart) + (size - extraStart);

  ZRVData result;
  std::exception_ptr applyFailure;
  try {
    result = applyTriples(old, newSize, supply, control, diff, extra);
  } catch (const StreamFailure&) {
    // Reported below by the validation of the stream that failed.
  } catch (...) {
    applyFailure = std::current_exception();
  }
  if (!control.validate() || !diff.validate() || !extra.validate()) throw bzip2Failure();
  if (applyFailure) std::rethrow_exception(applyFailure);
  return result;
}

}  // namespace zrv::bsdiff

namespace bsdiff {

ZRVData dataWithData(const ZRVData& old, const ZRVData& patchBytes) { return patch(old, patchBytes); }

std::optional<ZRVData> initWithData(const ZRVData& old, const ZRVData& patchBytes) {
  std::optional<ZRVData> copy;
  try {
    copy.emplace(old);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
  return patch(*copy, patchBytes);
}

}  // namespace bsdiff
