#include "foundation/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace zrv {

bool replaceFile(const std::filesystem::path& replacement, const std::filesystem::path& destination) {
  struct stat existing {};
  if (::lstat(destination.c_str(), &existing) == 0 && S_ISREG(existing.st_mode)) {
    ::chmod(replacement.c_str(), existing.st_mode & 07777);
  }
  return ::rename(replacement.c_str(), destination.c_str()) == 0;
}

bool writeFileAtomically(const std::filesystem::path& destination, const void* data, std::size_t size) {
  std::string temporary = (destination.parent_path() / ("." + destination.filename().string() + ".XXXXXX")).string();
  int descriptor = ::mkstemp(temporary.data());
  if (descriptor < 0) return false;
  ::fchmod(descriptor, 0644);
  const auto* bytes = static_cast<const char*>(data);
  std::size_t written = 0;
  while (written < size) {
    ssize_t count = ::write(descriptor, bytes + written, size - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    written += static_cast<std::size_t>(count);
  }
  bool complete = written == size && ::fsync(descriptor) == 0;
  complete = ::close(descriptor) == 0 && complete;
  if (!complete || !replaceFile(temporary, destination)) {
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace zrv
