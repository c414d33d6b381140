#pragma once
// A folder's entries read straight from the kernel into a buffer on the stack: checking or clearing an
// install lists hundreds of folders, and the C library's folder streams each take a 32 KiB block from the
// heap, an allocation that makes the allocator sweep up every small block freed since.

#include "foundation/FileDescriptor.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace zrv::update {

/// Calls `visit(name, type)` for each entry of the open folder `folder` but "." and "..", `type` as the
/// listing gives it (DT_REG, DT_DIR, DT_LNK, ..., or DT_UNKNOWN where the file system does not say); the
/// name is valid during the call only. Reads through a descriptor of its own, so `folder` is left as it was.
/// False when the folder could not be listed whole.
template <class Visit>
bool listFolder(int folder, Visit visit) {
  FileDescriptor listed(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!listed) return false;
  alignas(dirent64) char buffer[32 << 10];
  for (;;) {
    const ssize_t length = ::getdents64(listed.get(), buffer, sizeof buffer);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) return false;
    if (length == 0) return true;
    for (ssize_t at = 0; at < length;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer + at);
      at += entry->d_reclen;
      const std::string_view name(entry->d_name);
      if (name != "." && name != "..") visit(name, entry->d_type);
    }
  }
}

}  // namespace zrv::update
