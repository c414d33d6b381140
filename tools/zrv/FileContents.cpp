#include "FileContents.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <stdexcept>
#include <system_error>

namespace {
std::runtime_error fileError(const char* action, const std::filesystem::path& file) {
  return std::runtime_error(std::string("cannot ") + action + " " + file.string() + ": " + std::strerror(errno));
}
}  // namespace

ZRVData readFileContents(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) throw fileError("read", file);
  std::error_code error;
  auto size = std::filesystem::file_size(file, error);
  if (error) throw std::runtime_error("cannot read " + file.string() + ": " + error.message());
  ZRVData contents(size);
  if (!stream.read(reinterpret_cast<char*>(contents.data()), static_cast<std::streamsize>(size))) {
    throw fileError("read", file);
  }
  return contents;
}

MappedFileContents::MappedFileContents(const std::filesystem::path& file) {
  const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) throw fileError("read", file);
  struct stat status {};
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
    const int error = S_ISREG(status.st_mode) ? errno : EINVAL;
    ::close(descriptor);
    errno = error;
    throw fileError("read", file);
  }
  size_ = static_cast<std::size_t>(status.st_size);
  void* mapped = size_ == 0 ? nullptr : ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE | MAP_POPULATE, descriptor, 0);
  const int error = errno;
  ::close(descriptor);
  if (mapped == MAP_FAILED) {
    errno = error;
    throw fileError("read", file);
  }
  data_ = static_cast<const std::uint8_t*>(mapped);
}

MappedFileContents::~MappedFileContents() {
  if (data_) ::munmap(const_cast<std::uint8_t*>(data_), size_);
}

void writeFileWith(const std::filesystem::path& file, const std::function<int(int descriptor)>& write) {
  std::filesystem::path temporary = file;
  temporary += ".tmp";
  const int descriptor = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (descriptor < 0) throw fileError("write", temporary);
  int failure = 0;
  try {
    failure = write(descriptor);
  } catch (...) {
    ::close(descriptor);
    std::filesystem::remove(temporary);
    throw;
  }
  if (::close(descriptor) != 0 && failure == 0) failure = errno;
  std::error_code error;
  if (failure == 0) std::filesystem::rename(temporary, file, error);
  if (failure != 0 || error) {
    std::filesystem::remove(temporary);
    throw std::runtime_error("cannot write " + file.string() + ": " +
                             (failure != 0 ? std::strerror(failure) : error.message()));
  }
}

void writeFileContents(const std::filesystem::path& file, const ZRVData& contents) {
  writeFileWith(file, [&](int descriptor) {
    for (std::size_t done = 0; done < contents.size();) {
      const ssize_t count = ::write(descriptor, contents.data() + done, contents.size() - done);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) return count < 0 ? errno : EIO;
      done += static_cast<std::size_t>(count);
    }
    return 0;
  });
}
