#include "update/InstallFolder.h"

#include <ZRVKit/ZRVFormat.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>

namespace fs = std::filesystem;

namespace zrv::update {

ZRVError linkRefused(const fs::path& path) {
  ZRVJSON info = {{std::string(ZRVError::kLocalizedDescriptionKey),
                   ZRVFormat("%@: a link stands where the launcher keeps its own files; it is not followed",
                             path.string())},
                  {"path", path.string()}};
  return ZRVError(std::string(ZRVError::kFileDomain), ELOOP, std::move(info),
                  std::make_shared<const ZRVError>(ZRVError::posix(ELOOP)));
}

namespace {

// O_NOFOLLOW makes a link at the last name fail with ELOOP, and O_DIRECTORY a link to a folder too; a
// failure of either kind is checked against the name itself so that the error can say "link".
std::optional<Descriptor> failure(int folder, const std::string& name, const fs::path& shownPath, int errorNumber,
                                  std::optional<ZRVError>* error) {
  struct stat info {};
  bool isLink = ::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(info.st_mode);
  if (error) *error = isLink ? linkRefused(shownPath) : ZRVError::file(errorNumber, shownPath);
  return std::nullopt;
}

}  // namespace

std::optional<Descriptor> openInstallFolder(const fs::path& base, const fs::path& relative, bool create,
                                            std::optional<ZRVError>* error) {
  Descriptor opened(::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened) {
    if (error) *error = ZRVError::file(errno, base);
    return std::nullopt;
  }
  return openFolderBelow(opened.get(), relative, create, base, error);
}

std::optional<Descriptor> openFolderBelow(int folder, const fs::path& relative, bool create, const fs::path& shownBase,
                                          std::optional<ZRVError>* error) {
  Descriptor current(::fcntl(folder, F_DUPFD_CLOEXEC, 0));
  if (!current) {
    if (error) *error = ZRVError::file(errno, shownBase);
    return std::nullopt;
  }
  fs::path shown = shownBase;
  for (const auto& part : relative) {
    std::string name = part.string();
    if (name.empty() || name == "." || name == "/") continue;
    shown /= part;
    if (name == "..") {  // never reached from manifest names; refused rather than trusted
      if (error) *error = ZRVError::file(EINVAL, shown);
      return std::nullopt;
    }
    const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    int next = ::openat(current.get(), name.c_str(), flags);
    if (next < 0 && errno == ENOENT && create) {
      if (::mkdirat(current.get(), name.c_str(), 0755) != 0 && errno != EEXIST) {
        return failure(current.get(), name, shown, errno, error);
      }
      next = ::openat(current.get(), name.c_str(), flags);
    }
    if (next < 0) return failure(current.get(), name, shown, errno, error);
    current = Descriptor(next);
  }
  return current;
}

std::optional<Descriptor> createFileIn(int folder, const std::string& name, bool replace, const fs::path& shownPath,
                                       std::optional<ZRVError>* error) {
  if (replace) ::unlinkat(folder, name.c_str(), 0);  // a link is removed itself, never its target
  int fd = ::openat(folder, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return failure(folder, name, shownPath, errno, error);
  return Descriptor(fd);
}

std::optional<MappedFile> MappedFile::map(int fd) {
  struct stat info {};
  if (::fstat(fd, &info) != 0 || info.st_size < 0) return std::nullopt;
  if (info.st_size == 0) return MappedFile(nullptr, 0);
  void* address = ::mmap(nullptr, static_cast<std::size_t>(info.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
  if (address == MAP_FAILED) return std::nullopt;
  return MappedFile(address, static_cast<std::size_t>(info.st_size));
}

MappedFile::MappedFile(MappedFile&& other) noexcept
    : address_(std::exchange(other.address_, nullptr)), size_(std::exchange(other.size_, 0)) {}

void MappedFile::releasePages() const {
  if (address_) ::madvise(address_, size_, MADV_DONTNEED);
}

MappedFile::~MappedFile() {
  if (address_) ::munmap(address_, size_);
}

std::string temporaryNameFor(const std::string& name) {
  static std::atomic<unsigned> counter{0};
  return "." + name + "." + std::to_string(::getpid()) + "." + std::to_string(counter.fetch_add(1)) + ".partial";
}

std::optional<Descriptor> createTemporaryFileIn(int folder, const std::string& forName, std::string& temporaryName,
                                                const fs::path& shownFolder, std::optional<ZRVError>* error) {
  constexpr int kAttempts = 100;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    temporaryName = temporaryNameFor(forName);
    std::optional<ZRVError> failed;
    if (auto file = createFileIn(folder, temporaryName, false, shownFolder / temporaryName, &failed)) return file;
    if (!failed || !(failed->code() == EEXIST || failed->code() == ELOOP)) {
      if (error) *error = failed;
      return std::nullopt;
    }
  }
  if (error) *error = ZRVError::file(EEXIST, shownFolder / temporaryName);
  return std::nullopt;
}

bool createTemporaryFolderIn(int folder, const std::string& forName, std::string& temporaryName,
                             const fs::path& shownFolder, std::optional<ZRVError>* error) {
  constexpr int kAttempts = 100;
  int lastError = EEXIST;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    temporaryName = temporaryNameFor(forName);
    if (::mkdirat(folder, temporaryName.c_str(), 0755) == 0) return true;
    lastError = errno;
    if (lastError != EEXIST) break;
  }
  if (error) *error = ZRVError::file(lastError, shownFolder / temporaryName);
  return false;
}

bool replaceIn(int folder, const std::string& temporary, const std::string& name) {
  struct stat existing {};
  if (::fstatat(folder, name.c_str(), &existing, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(existing.st_mode)) {
    Descriptor replacement(::openat(folder, temporary.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (replacement) ::fchmod(replacement.get(), existing.st_mode & 07777);
  }
  return ::renameat(folder, temporary.c_str(), folder, name.c_str()) == 0;
}

bool writeFileAtomicallyIn(int folder, const std::string& name, const void* data, std::size_t size) {
  std::string temporary;
  auto file = createTemporaryFileIn(folder, name, temporary, {});
  if (!file) return false;
  const auto* bytes = static_cast<const char*>(data);
  std::size_t written = 0;
  while (written < size) {
    ssize_t count = ::write(file->get(), bytes + written, size - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    written += static_cast<std::size_t>(count);
  }
  bool complete = written == size && ::fsync(file->get()) == 0;
  file.reset();
  if (!complete || !replaceIn(folder, temporary, name)) {
    int keep = errno;
    ::unlinkat(folder, temporary.c_str(), 0);
    errno = keep;
    return false;
  }
  return true;
}

}  // namespace zrv::update
