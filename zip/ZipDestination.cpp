#include "zip/ZipDestination.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace zrv::zip {

namespace fs = std::filesystem;

ZipDestination::ZipDestination(const fs::path& root) : root_(root) {
  std::error_code error;
  fs::create_directories(root, error);
  rootDescriptor_ = UniqueFileDescriptor(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!rootDescriptor_) openError_ = errno;
}

std::optional<ZipDestination::Parts> ZipDestination::partsOfName(std::string_view name, std::string& reason) {
  if (name.find('\0') != std::string_view::npos) {
    reason = "the name holds a NUL character";
    return std::nullopt;
  }
  std::string slashed(name);
  for (char& c : slashed) {
    if (c == '\\') c = '/';
  }
  if (!slashed.empty() && slashed.front() == '/') {
    reason = "the name is absolute";
    return std::nullopt;
  }
  Parts parts;
  std::size_t start = 0;
  while (start <= slashed.size()) {
    std::size_t end = slashed.find('/', start);
    if (end == std::string::npos) end = slashed.size();
    std::string part = slashed.substr(start, end - start);
    start = end + 1;
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      reason = "the name climbs out with \"..\"";
      return std::nullopt;
    }
    parts.push_back(std::move(part));
  }
  return parts;
}

bool ZipDestination::isLinkTargetInside(std::string_view target, std::size_t depth) {
  if (target.empty() || target.find('\0') != std::string_view::npos || target.front() == '/') return false;
  bool descended = false;
  std::size_t start = 0;
  while (start <= target.size()) {
    std::size_t end = target.find('/', start);
    if (end == std::string_view::npos) end = target.size();
    std::string_view part = target.substr(start, end - start);
    start = end + 1;
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      if (descended || depth == 0) return false;
      --depth;
    } else {
      descended = true;
    }
  }
  return true;
}

UniqueFileDescriptor ZipDestination::openFolder(const Parts& parts, std::size_t count, bool create) const {
  if (!rootDescriptor_) {
    errno = openError_;
    return {};
  }
  UniqueFileDescriptor current(::dup(rootDescriptor_.get()));
  for (std::size_t i = 0; i < count && current; ++i) {
    const char* name = parts[i].c_str();
    int next = ::openat(current.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (next < 0 && errno == ENOENT && create) {
      if (::mkdirat(current.get(), name, 0777) == 0 || errno == EEXIST) {
        next = ::openat(current.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      }
    }
    if (next < 0) {
      int failure = errno;
      current.reset();
      errno = failure;
      return {};
    }
    current = UniqueFileDescriptor(next);
  }
  return current;
}

fs::path ZipDestination::pathOf(const Parts& parts) const {
  fs::path path = root_;
  for (const std::string& part : parts) path /= part;
  return path;
}

}  // namespace zrv::zip
