#include <ZRVKit/bsdiff.h>

#include "PatchApplication.h"
#include "PatchStream.h"

#include <ZRVKit/ZRVException.h>
#include <ZRVKit/ZRVExtensions.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <exception>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

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

/// Where the new file's bytes go as the control triples make them: room is asked for, filled from a stream
/// (and the old bytes added in place), then committed.
class Output {
 public:
  virtual ~Output() = default;
  /// Room for at least one and at most `wanted` bytes at the end of the output.
  virtual std::uint8_t* room(std::size_t wanted, std::size_t& granted) = 0;
  /// The first `count` bytes of the room last granted are part of the output now.
  virtual void commit(std::size_t count) = 0;
  /// `count` patch bytes were read that made no output (control triples).
  virtual void readWithoutOutput(std::size_t count) { (void)count; }
};

/// The new file held in memory. A plausible new size (no larger than the old file and what the streams are
/// expected to supply) is reserved once; beyond that the output grows only as bytes actually arrive from the
/// streams, so a header that claims an enormous new size costs nothing until the streams deliver that much.
class MemoryOutput final : public Output {
 public:
  MemoryOutput(std::int64_t newSize, std::uint64_t plausibleSize) : limit_(static_cast<std::uint64_t>(newSize)) {
    bytes_.reserve(static_cast<std::size_t>(std::min(limit_, plausibleSize)));
  }

  std::uint8_t* room(std::size_t wanted, std::size_t& granted) override {
    committed_ = bytes_.size();
    granted = std::min(wanted, std::max(kMinimumChunk, committed_));
    reserveFor(committed_ + granted);
    bytes_.resize(committed_ + granted);
    return bytes_.data() + committed_;
  }
  void commit(std::size_t count) override { bytes_.resize(committed_ + count); }

  ZRVData take() { return std::move(bytes_); }

 private:
  static constexpr std::size_t kMinimumChunk = 64 * 1024;

  void reserveFor(std::size_t needed) {
    if (needed <= bytes_.capacity()) return;
    std::uint64_t grown = std::max<std::uint64_t>(needed, 4 * static_cast<std::uint64_t>(bytes_.size()));
    bytes_.reserve(static_cast<std::size_t>(std::min(limit_, grown)));
  }

  std::uint64_t limit_;
  std::size_t committed_ = 0;
  ZRVData bytes_;
};

/// The new file written to a descriptor through one fixed buffer, so that its size costs no memory. A write
/// that fails (or would pass the cap) does not stop the patch: the rest is applied and dropped, because a
/// corrupt patch must fail as such whatever happened to the output. Every few MiB written, the caller may let
/// go of the pages of its mapped inputs.
class DescriptorOutput final : public Output {
 public:
  DescriptorOutput(int fd, std::uint64_t maxBytes, const std::function<void()>& releasePages)
      : fd_(fd), maxBytes_(maxBytes), releasePages_(releasePages), buffer_(kBufferLength) {
    if (fd_ < 0) failure_ = EBADF;
  }

  std::uint8_t* room(std::size_t wanted, std::size_t& granted) override {
    if (used_ == buffer_.size()) flush();
    granted = std::min(wanted, buffer_.size() - used_);
    return buffer_.data() + used_;
  }
  void commit(std::size_t count) override { used_ += count; }
  void readWithoutOutput(std::size_t count) override { progressed(count); }

  /// Writes what is buffered; 0, or the errno of the first failed write (EFBIG beyond the cap).
  int finish() {
    flush();
    return failure_;
  }

 private:
  static constexpr std::size_t kBufferLength = std::size_t{1} << 20;
  static constexpr std::uint64_t kReleaseInterval = std::uint64_t{16} << 20;

  void flush() {
    if (failure_ == 0 && used_ > maxBytes_ - written_) failure_ = EFBIG;
    for (std::size_t done = 0; failure_ == 0 && done < used_;) {
      ssize_t count = ::write(fd_, buffer_.data() + done, used_ - done);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) failure_ = count < 0 ? errno : EIO;
      else done += static_cast<std::size_t>(count);
    }
    written_ += used_;
    progressed(used_);
    used_ = 0;
  }

  void progressed(std::uint64_t bytes) {
    sinceRelease_ += bytes;
    if (sinceRelease_ < kReleaseInterval) return;
    if (releasePages_) releasePages_();
    sinceRelease_ = 0;
  }

  int fd_;
  std::uint64_t maxBytes_;
  const std::function<void()>& releasePages_;
  std::vector<std::uint8_t> buffer_;
  std::size_t used_ = 0;
  std::uint64_t written_ = 0;
  std::uint64_t sinceRelease_ = 0;
  int failure_ = 0;
};

/// Adds old bytes to the `length` diff bytes at `target`, where `oldPosition` may lie partly or wholly outside
/// the old file; bytes without an old counterpart stay as they are.
void addOldBytes(std::uint8_t* target, std::uint64_t length, const std::uint8_t* old, std::uint64_t oldSize,
                 std::int64_t oldPosition) {
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
  const std::uint8_t* from = old + (position + first);  // the first index inside the old file
  for (std::uint64_t i = 0, count = last - first; i < count; ++i) into[i] = static_cast<std::uint8_t>(into[i] + from[i]);
}

/// Moves up to `count` bytes from `stream` to `output`; with `old`, the old bytes from `oldPosition` on are
/// added to them. Returns how many bytes it moved.
std::uint64_t transfer(PatchStream& stream, Output& output, std::uint64_t count, const std::uint8_t* old,
                       std::uint64_t oldSize, std::int64_t oldPosition) {
  std::uint64_t moved = 0;
  while (moved < count) {
    std::size_t granted = 0;
    const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(count - moved, SIZE_MAX));
    std::uint8_t* room = output.room(wanted, granted);
    const std::size_t got = stream.read(room, granted);
    if (old) {
      addOldBytes(room, got, old, oldSize, static_cast<std::int64_t>(static_cast<std::uint64_t>(oldPosition) + moved));
    }
    output.commit(got);
    moved += got;
    if (got < granted) break;
  }
  return moved;
}

std::out_of_range negativeLength(std::int64_t length) {
  return std::out_of_range("negative length " + std::to_string(length));
}

/// The control triples applied one by one, pulling diff and extra bytes as they are needed.
void applyTriples(const std::uint8_t* old, std::uint64_t oldSize, std::int64_t newSize, Output& output,
                  PatchStream& control, PatchStream& diff, PatchStream& extra) {
  std::int64_t newPosition = 0;
  std::int64_t oldPosition = 0;  // may wander far outside the old file; it wraps rather than overflowing
  while (newPosition < newSize) {
    std::uint8_t triple[24];
    if (control.read(triple, sizeof triple) < sizeof triple) {
      if (control.failed()) throw StreamFailure();
      throw corruptPatch();
    }
    output.readWithoutOutput(sizeof triple);
    const std::int64_t add = ::bsdiff::offtin(triple);
    const std::int64_t copy = ::bsdiff::offtin(triple + 8);
    const std::int64_t seek = ::bsdiff::offtin(triple + 16);

    if (add > newSize - newPosition) throw corruptPatch();
    if (add < 0) throw negativeLength(add);
    const auto addLength = static_cast<std::uint64_t>(add);
    if (transfer(diff, output, addLength, old, oldSize, oldPosition) < addLength) {
      if (diff.failed()) throw StreamFailure();
      throw corruptPatch();
    }
    newPosition += add;

    if (copy > newSize - newPosition) throw corruptPatch();
    if (copy < 0) throw negativeLength(copy);
    const auto copyLength = static_cast<std::uint64_t>(copy);
    if (transfer(extra, output, copyLength, nullptr, 0, 0) < copyLength) {
      if (extra.failed()) throw StreamFailure();
      throw corruptPatch();
    }
    oldPosition = static_cast<std::int64_t>(static_cast<std::uint64_t>(oldPosition) + addLength +
                                            static_cast<std::uint64_t>(seek));
    newPosition += copy;
  }
}

/// Reads the header, opens the three streams and applies the triples to the output that `makeOutput` makes
/// from the new size and the largest plausible one. `release` (if set) is called now and
/// then while stream remainders are decoded without output.
template <typename MakeOutput>
void applyPatch(const std::uint8_t* old, std::uint64_t oldSize, const std::uint8_t* patchData, std::size_t size,
                const std::function<void()>& release, MakeOutput&& makeOutput) {
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
    if (!control.validate(release)) throw bzip2Failure();
    throw sliceOutOfRange(diffStart, 0, size);
  }
  PatchStream diff = streamAt(diffStart);
  const std::uint64_t extraStart = diffStart + static_cast<std::uint64_t>(diffLength);
  if (extraStart > size) {
    if (!control.validate(release) || !diff.validate(release)) throw bzip2Failure();
    throw sliceOutOfRange(extraStart, 0, size);
  }
  PatchStream extra = streamAt(extraStart);

  // What the diff and extra streams can supply: exact when stored raw; for bzip2 only a first guess. Diff bytes
  // are added to old ones, so a new file up to the old one's size plus that is plausible.
  const std::uint64_t supply =
      compressed ? (std::uint64_t{1} << 20) + 8 * (size - diffStart) : (size - diffStart) + (size - extraStart);
  const std::uint64_t plausibleSize = oldSize + supply;

  std::exception_ptr applyFailure;
  try {
    applyTriples(old, oldSize, newSize, makeOutput(newSize, plausibleSize), control, diff, extra);
  } catch (const StreamFailure&) {
    // Reported below by the validation of the stream that failed.
  } catch (...) {
    applyFailure = std::current_exception();
  }
  if (!control.validate(release) || !diff.validate(release) || !extra.validate(release)) throw bzip2Failure();
  if (applyFailure) std::rethrow_exception(applyFailure);
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
  std::optional<MemoryOutput> output;
  applyPatch(old.data(), old.size(), patchData, size, {}, [&](std::int64_t newSize, std::uint64_t plausible) -> Output& {
    return output.emplace(newSize, plausible);
  });
  return output->take();
}

int patchToDescriptor(const std::uint8_t* old, std::size_t oldSize, const std::uint8_t* patchData, std::size_t size,
                      int fd, std::uint64_t maxBytes, const std::function<void()>& releasePages) {
  std::optional<DescriptorOutput> output;
  applyPatch(old, oldSize, patchData, size, releasePages, [&](std::int64_t, std::uint64_t) -> Output& {
    return output.emplace(fd, maxBytes, releasePages);
  });
  return output->finish();
}

}  // namespace zrv::bsdiff

namespace bsdiff {

ZRVData dataWithData(const ZRVData& old, const ZRVData& patchBytes) { return patch(old, patchBytes); }

int writePatchedFile(const std::uint8_t* old, std::size_t oldSize, const std::uint8_t* patchBytes, std::size_t patchSize,
                     int fd) {
  return zrv::bsdiff::patchToDescriptor(old, oldSize, patchBytes, patchSize, fd, UINT64_MAX, {});
}

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
