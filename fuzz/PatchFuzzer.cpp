// Fuzzes patch application. Input: a 2-byte little-endian old-file length, the old file, then the patch.
// The new file held in memory and the new file written to a descriptor must agree: the same bytes or the
// same failure.

#include "update/bsdiff/PatchApplication.h"

#include <ZRVKit/ZRVException.h>
#include <ZRVKit/bsdiff.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace {

/// "bsdiff", "bzip2", "range" or "" for success, of `apply`.
template <typename Apply>
std::string failureOf(Apply&& apply) {
  try {
    apply();
    return "";
  } catch (const ZRVException& failure) {
    if (failure.name() != "bsdiff" && failure.name() != "bzip2") std::abort();
    return failure.name();
  } catch (const std::out_of_range&) {
    return "range";
  }
}

// One descriptor for every run; each run starts it empty.
int outputDescriptor() {
  static const int fd = ::memfd_create("patched", MFD_CLOEXEC);
  if (fd < 0 || ::ftruncate(fd, 0) != 0 || ::lseek(fd, 0, SEEK_SET) != 0) std::abort();
  return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  std::size_t oldLength = data[0] | (data[1] << 8);
  if (oldLength > size - 2) oldLength = size - 2;
  const ZRVData old(data + 2, data + 2 + oldLength);
  const ZRVData patch(data + 2 + oldLength, data + size);
  ZRVData held;
  const std::string heldFailure = failureOf([&] { held = bsdiff::patch(old, patch); });
  // A patch that applies always yields exactly the size its header claims.
  if (heldFailure.empty() && static_cast<std::int64_t>(held.size()) != bsdiff::offtin(patch.data() + 24)) std::abort();

  const int fd = outputDescriptor();
  int written = -1;
  const std::string writtenFailure = failureOf([&] {
    written = zrv::bsdiff::patchToDescriptor(old.data(), old.size(), patch.data(), patch.size(), fd, UINT64_MAX, {});
  });
  if (writtenFailure != heldFailure) std::abort();
  if (heldFailure.empty()) {
    ZRVData back(held.size() + 1);
    if (written != 0 || ::pread(fd, back.data(), back.size(), 0) != static_cast<ssize_t>(held.size())) std::abort();
    back.resize(held.size());
    if (back != held) std::abort();
  }
  return 0;
}
