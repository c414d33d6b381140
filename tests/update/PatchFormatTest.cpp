// The patch format's corner cases, on hand-made patches.

#include "tests/update/PatchBuilder.h"

#include <ZRVKit/ZRVException.h>
#include <ZRVKit/bsdiff.h>

#include "update/bsdiff/PatchApplication.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <stdexcept>

#include <sys/mman.h>
#include <unistd.h>

// The largest single allocation made by this program, to show that hostile headers reserve nothing big.
namespace {
std::atomic<std::size_t> largestAllocation{0};
std::size_t largestWhilePatching = 0;  // as it was before the written file was read back
}
void* operator new(std::size_t size) {
  std::size_t seen = largestAllocation.load();
  while (size > seen && !largestAllocation.compare_exchange_weak(seen, size)) {
  }
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

const ZRVData kOld = {10, 20, 30};

/// "bsdiff", "bzip2", "out_of_range" or "" for success, of `apply`.
template <typename Apply>
std::string failureIn(Apply&& apply) {
  try {
    apply();
    return "";
  } catch (const ZRVException& failure) {
    EXPECT_EQ(failure.reason(), failure.name() == "bsdiff" ? "Corrupt patch" : "BZ2_bzDecompress failed");
    return failure.name();
  } catch (const std::out_of_range&) {
    return "out_of_range";
  }
}

/// The new file written to a descriptor, read back; `written` gets the outcome of the writes.
ZRVData patchThroughDescriptor(const ZRVData& old, const ZRVData& patch, std::uint64_t maxBytes, int& written) {
  int fd = ::memfd_create("patched", MFD_CLOEXEC);
  if (fd < 0) throw std::runtime_error("no memfd");
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  written = zrv::bsdiff::patchToDescriptor(old.data(), old.size(), patch.data(), patch.size(), fd, maxBytes, {});
  largestWhilePatching = largestAllocation.load();
  ZRVData result(static_cast<std::size_t>(::lseek(fd, 0, SEEK_END)));
  if (::pread(fd, result.data(), result.size(), 0) != static_cast<ssize_t>(result.size())) throw std::runtime_error("pread");
  return result;
}

/// The failure of applying `patch` to `old`, which must be the same whether the new file is held or written.
std::string failureOf(const ZRVData& old, const ZRVData& patch) {
  ZRVData held, written;
  int writeOutcome = -1;
  std::string heldFailure = failureIn([&] { held = bsdiff::patch(old, patch); });
  std::string writtenFailure = failureIn([&] { written = patchThroughDescriptor(old, patch, UINT64_MAX, writeOutcome); });
  EXPECT_EQ(heldFailure, writtenFailure);
  if (heldFailure.empty()) {
    EXPECT_EQ(writeOutcome, 0);
    EXPECT_EQ(held, written);
  }
  return heldFailure;
}

TEST(PatchFormat, rawAndCompressedPatchesApplyAlike) {
  ZRVData negativeZeroSize = PatchParts{{}, {}, {}, 0}.raw();
  negativeZeroSize[31] = 0x80;  // the new size field as a negative zero
  struct Case {
    const char* name;
    ZRVData old;
    PatchParts parts;
    ZRVData expected;
  } cases[] = {
      // Old positions run from -2 to 3 over a 3-byte old file: only 0..2 get old bytes added.
      {"seeks before and past the old file", kOld, {{{1, 1, -3}, {6, 0, 0}}, {1, 0, 1, 2, 3, 4, 5}, {99}, 8},
       {11, 99, 0, 1, 2 + 10, 3 + 20, 4 + 30, 5}},
      {"add bytes wrap modulo 256", {10, 20}, {{{2, 0, 0}}, {250, 240}, {}, 2}, {4, 4}},
      {"new size zero needs no control triple", kOld, {{}, {}, {}, 0}, {}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(bsdiff::patch(c.old, c.parts.raw()), c.expected) << c.name;
    EXPECT_EQ(bsdiff::patch(c.old, c.parts.compressed()), c.expected) << c.name;
    EXPECT_EQ(bsdiff::dataWithData(c.old, c.parts.compressed()), c.expected) << c.name;
    EXPECT_EQ(bsdiff::initWithData(c.old, c.parts.raw()), c.expected) << c.name;
  }
  EXPECT_EQ(bsdiff::patch(kOld, negativeZeroSize), ZRVData{});
}

TEST(PatchFormat, failures) {
  const ZRVData good = PatchParts{{{1, 1, 0}}, {1}, {2}, 2}.raw();
  auto withByte = [&](std::size_t index, std::uint8_t value) {
    ZRVData patch = good;
    patch[index] = value;
    return patch;
  };
  ZRVData garbageStreams = PatchParts::assemble("BSDIFF40", {1, 2, 3}, {4, 5}, {6}, 0);
  ZRVData truncatedExtra = PatchParts{{{1, 0, 0}}, {1}, {}, 1}.compressed();
  truncatedExtra.resize(truncatedExtra.size() - 3);
  ZRVData corruptExtraNotNeeded = PatchParts::assemble("BSDIFF40", bzip2(PatchParts{{{1, 0, 0}}, {}, {}, 1}.control()),
                                                       bzip2({1}), {'B', 'Z', 'h', '9', 1, 2, 3}, 1);
  ZRVData zeroDiffLength = PatchParts{{{0, 1, 0}}, {}, {5}, 1}.raw();
  zeroDiffLength[23] = 0x80;  // negative zero
  // The stored diff length runs past the end of the patch, so the extra stream would start beyond it.
  ZRVData extraBeyondEnd = PatchParts::assemble("BSDIFN40", ZRVData(8), ZRVData(100), {}, 1);
  extraBeyondEnd.resize(32 + 8 + 50);
  // A stream start beyond the end comes after decoding the streams before it.
  ZRVData diffBeyondEnd = PatchParts{{{1, 0, 0}}, {1}, {}, 1}.compressed();
  diffBeyondEnd[8] = 200;
  ZRVData damagedControlAndDiffBeyondEnd = PatchParts::assemble("BSDIFF40", {1, 2, 3}, {}, {}, 1);
  damagedControlAndDiffBeyondEnd[8] = 200;

  struct Case {
    const char* name;
    ZRVData patch;
    std::string failure;
  } cases[] = {
      {"good", good, ""},
      {"wrong magic", withByte(6, '5'), "bsdiff"},
      {"negative control length", withByte(15, 0x80), "bsdiff"},
      {"negative diff length", withByte(23, 0x81), "bsdiff"},
      {"negative new size", withByte(31, 0x80 | 1), "bsdiff"},
      {"negative zero diff length", zeroDiffLength, ""},
      {"under 32 bytes", ZRVData(good.begin(), good.begin() + 31), "out_of_range"},
      {"control triple short", PatchParts{{}, {}, {}, 1}.raw(), "bsdiff"},
      {"add past new size", PatchParts{{{3, 0, 0}}, {1, 2, 3}, {}, 2}.raw(), "bsdiff"},
      {"copy past new size by one byte", PatchParts{{{2, 3, 0}}, {1, 2}, {3, 4, 5}, 4}.raw(), "bsdiff"},
      {"diff too short", PatchParts{{{2, 0, 0}}, {1}, {}, 2}.compressed(), "bsdiff"},
      {"extra too short", PatchParts{{{0, 2, 0}}, {}, {1}, 2}.compressed(), "bsdiff"},
      {"negative add length", PatchParts{{{-1, 0, 0}}, {}, {}, 1}.raw(), "out_of_range"},
      {"negative copy length", PatchParts{{{0, -1, 0}}, {}, {}, 1}.compressed(), "out_of_range"},
      {"extra stream beyond the end", extraBeyondEnd, "out_of_range"},
      {"diff stream beyond the end", diffBeyondEnd, "out_of_range"},
      {"streams not bzip2 even with new size 0", garbageStreams, "bzip2"},
      {"stream cut before its end mark", truncatedExtra, "bzip2"},
      {"damaged stream the output never needs", corruptExtraNotNeeded, "bzip2"},
      {"damaged control before a range failure", damagedControlAndDiffBeyondEnd, "bzip2"},
  };
  for (const Case& c : cases) EXPECT_EQ(failureOf(kOld, c.patch), c.failure) << c.name;
}

TEST(PatchFormat, hostileNewSizeReservesNothingBig) {
  constexpr std::int64_t kHuge = std::int64_t{1} << 60;
  for (bool compressed : {false, true}) {
    PatchParts parts{{{1000, 0, 0}}, ZRVData(1000, 7), {}, kHuge};
    ZRVData patch = compressed ? parts.compressed() : parts.raw();
    largestAllocation = 0;
    EXPECT_EQ(failureOf(kOld, patch), "bsdiff");
    EXPECT_LT(largestAllocation.load(), std::size_t{4} << 20) << (compressed ? "BSDIFF40" : "BSDIFN40");
  }
}

TEST(PatchFormat, smallPatchForAHugeFileIsWrittenThroughAFixedBufferUpToItsCap) {
  // 64 MiB of output from a patch of a few hundred bytes: written in pieces, never held, and cut off at the
  // cap; a corrupt patch still fails as such when nothing was written.
  constexpr std::int64_t kNewSize = std::int64_t{64} << 20;
  const ZRVData patch = PatchParts{{{kNewSize, 0, 0}}, ZRVData(static_cast<std::size_t>(kNewSize), 0), {}, kNewSize}.compressed();
  ASSERT_LT(patch.size(), 1000u);
  struct Case {
    const char* name;
    std::uint64_t cap;
    int outcome;
  } cases[] = {{"within the cap", std::uint64_t{1} << 30, 0}, {"beyond the cap", std::uint64_t{1} << 20, EFBIG}};
  for (const Case& c : cases) {
    largestAllocation = 0;
    int outcome = -1;
    ZRVData written = patchThroughDescriptor(kOld, patch, c.cap, outcome);
    EXPECT_EQ(outcome, c.outcome) << c.name;
    EXPECT_EQ(written.size(), std::min<std::uint64_t>(c.cap, kNewSize)) << c.name;  // never more than the cap
    if (c.outcome == 0) {
      EXPECT_EQ(ZRVData(written.begin(), written.begin() + 3), kOld) << c.name;
    }
    EXPECT_LT(largestWhilePatching, std::size_t{8} << 20) << c.name;
  }
}

}  // namespace
