#include "BufferedArchiveFile.h"

#include "foundation/FileDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zrv::zip {

namespace {

constexpr std::size_t kBufferLength = std::size_t{1} << 20;

/// A piece of the archive held in memory.
struct Window {
  std::vector<std::uint8_t> bytes;
  std::uint64_t start = 0;  ///< the archive offset of bytes[0]
  std::size_t valid = 0;
  std::uint64_t lastUse = 0;

  bool holds(std::uint64_t offset) const { return offset >= start && offset < start + valid; }
};

struct ArchiveFile {
  FileDescriptor descriptor;
  std::uint64_t size = 0;
  std::uint64_t position = 0;
  // minizip alternates between the central directory at the end and each entry's own bytes, so one window
  // follows each.
  Window windows[2];
  std::uint64_t uses = 0;
  int error = 0;

  /// Up to `count` bytes from `offset` straight into `out`; fewer at the end, none on a failure.
  std::size_t readAt(std::uint64_t offset, std::uint8_t* out, std::size_t count) {
    std::size_t done = 0;
    while (done < count) {
      const ssize_t got = ::pread(descriptor.get(), out + done, count - done, static_cast<off_t>(offset + done));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) error = errno;
      if (got <= 0) break;
      done += static_cast<std::size_t>(got);
    }
    return done;
  }

  std::size_t read(std::uint8_t* out, std::size_t count) {
    std::size_t done = 0;
    while (done < count) {
      Window* window = windows[0].holds(position) ? &windows[0] : windows[1].holds(position) ? &windows[1] : nullptr;
      if (window) {
        window->lastUse = ++uses;
        const auto at = static_cast<std::size_t>(position - window->start);
        const std::size_t take = std::min(count - done, window->valid - at);
        std::memcpy(out + done, window->bytes.data() + at, take);
        done += take;
        position += take;
      } else if (count - done >= kBufferLength) {
        // Large reads (stored entries) go past the windows.
        const std::size_t got = readAt(position, out + done, count - done);
        done += got;
        position += got;
        break;
      } else {
        Window& refilled = windows[0].lastUse <= windows[1].lastUse ? windows[0] : windows[1];
        if (refilled.bytes.empty()) refilled.bytes.resize(kBufferLength);
        refilled.start = position;
        refilled.valid = readAt(position, refilled.bytes.data(), refilled.bytes.size());
        refilled.lastUse = ++uses;
        if (refilled.valid == 0) break;
      }
    }
    return done;
  }
};

voidpf ZCALLBACK openArchive(voidpf, const void* path, int mode) {
  if ((mode & ZLIB_FILEFUNC_MODE_READWRITEFILTER) != ZLIB_FILEFUNC_MODE_READ || !path) return nullptr;
  FileDescriptor descriptor(::open(static_cast<const char*>(path), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  if (!descriptor || ::fstat(descriptor.get(), &status) != 0) return nullptr;
  auto* file = new (std::nothrow) ArchiveFile();
  if (!file) return nullptr;
  file->descriptor = std::move(descriptor);
  file->size = static_cast<std::uint64_t>(status.st_size);
  return file;
}

uLong ZCALLBACK readArchive(voidpf, voidpf stream, void* out, uLong count) {
  return static_cast<uLong>(static_cast<ArchiveFile*>(stream)->read(static_cast<std::uint8_t*>(out), count));
}

uLong ZCALLBACK writeArchive(voidpf, voidpf, const void*, uLong) { return 0; }

ZPOS64_T ZCALLBACK tellArchive(voidpf, voidpf stream) { return static_cast<ArchiveFile*>(stream)->position; }

long ZCALLBACK seekArchive(voidpf, voidpf stream, ZPOS64_T offset, int origin) {
  auto* file = static_cast<ArchiveFile*>(stream);
  std::uint64_t base = 0;
  if (origin == ZLIB_FILEFUNC_SEEK_CUR) base = file->position;
  else if (origin == ZLIB_FILEFUNC_SEEK_END) base = file->size;
  else if (origin != ZLIB_FILEFUNC_SEEK_SET) return -1;
  file->position = base + offset;  // like lseek, a position past the end is allowed and reads nothing
  return 0;
}

int ZCALLBACK closeArchive(voidpf, voidpf stream) {
  delete static_cast<ArchiveFile*>(stream);
  return 0;
}

int ZCALLBACK archiveError(voidpf, voidpf stream) { return static_cast<ArchiveFile*>(stream)->error; }

}  // namespace

zlib_filefunc64_def bufferedArchiveFileFunctions() {
  zlib_filefunc64_def functions{};
  functions.zopen64_file = openArchive;
  functions.zread_file = readArchive;
  functions.zwrite_file = writeArchive;
  functions.ztell64_file = tellArchive;
  functions.zseek64_file = seekArchive;
  functions.zclose_file = closeArchive;
  functions.zerror_file = archiveError;
  functions.opaque = nullptr;
  return functions;
}

}  // namespace zrv::zip
