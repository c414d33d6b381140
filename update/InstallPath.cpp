#include "update/InstallPath.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <string>

namespace fs = std::filesystem;

namespace zrv::update {

bool isContainedName(std::string_view name) {
  if (name.empty() || name.front() == '/' || name.find('\0') != std::string_view::npos) return false;
  for (const auto& part : fs::path(std::string(name))) {
    if (part == "..") return false;
  }
  return true;
}

bool resolvesInside(const fs::path& base, const fs::path& location) {
  std::error_code error;
  fs::path resolvedBase = fs::weakly_canonical(base, error);
  if (error) return false;
  fs::path resolved = fs::weakly_canonical(location, error);
  if (error) return false;
  auto [end, unused] = std::mismatch(resolvedBase.begin(), resolvedBase.end(), resolved.begin(), resolved.end());
  (void)unused;
  return end == resolvedBase.end();
}

fs::path siblingTemporaryPath(const fs::path& destination) {
  static std::atomic<unsigned> counter{0};
  return destination.parent_path() /
         ("." + destination.filename().string() + "." + std::to_string(getpid()) + "." +
          std::to_string(counter.fetch_add(1)) + ".partial");
}

bool writeFileAtomically(const fs::path& destination, const ZRVData& data) {
  fs::path temporary = siblingTemporaryPath(destination);
  int descriptor = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (descriptor < 0) return false;
  std::size_t written = 0;
  while (written < data.size()) {
    ssize_t count = ::write(descriptor, data.data() + written, data.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    written += static_cast<std::size_t>(count);
  }
  bool complete = written == data.size() && ::fsync(descriptor) == 0;
  complete = ::close(descriptor) == 0 && complete;
  if (!complete || ::rename(temporary.c_str(), destination.c_str()) != 0) {
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

bool readWholeFile(const fs::path& file, ZRVData& contents) {
  std::FILE* handle = std::fopen(file.c_str(), "rb");
  if (!handle) return false;
  contents.clear();
  std::uint8_t buffer[1 << 16];
  std::size_t count;
  while ((count = std::fread(buffer, 1, sizeof buffer, handle)) > 0) contents.insert(contents.end(), buffer, buffer + count);
  bool ok = !std::ferror(handle);
  std::fclose(handle);
  return ok;
}

}  // namespace zrv::update
