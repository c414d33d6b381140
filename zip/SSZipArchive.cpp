#include <ZRVKit/SSZipArchive.h>

#include "zip/SSZipArchiveUnzipper.h"
#include "zip/ZipDestination.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kReadChunkSize = 16384;
// "Made by" Unix (3), format version 3.0: readers then take the permissions from the upper attribute bits.
constexpr uLong kVersionMadeByUnix = (3 << 8) | 30;
constexpr uLong kRegularFileType = 0x8000;
// Above this an entry needs the 64-bit extension of the format.
constexpr std::uintmax_t kLargeEntrySize = 0xFFFFFFFFu;

}  // namespace

bool SSZipArchive::unzipFileAtPath(const fs::path& path, const fs::path& destination) {
  return unzipFileAtPath(path, destination, true, std::nullopt, nullptr, SSZipArchiveDelegate{});
}

bool SSZipArchive::unzipFileAtPath(const fs::path& path, const fs::path& destination,
                                   const SSZipArchiveDelegate& delegate) {
  return unzipFileAtPath(path, destination, true, std::nullopt, nullptr, delegate);
}

bool SSZipArchive::unzipFileAtPath(const fs::path& path, const fs::path& destination, bool overwrite,
                                   const std::optional<std::string>& password, std::optional<ZRVError>* error) {
  return unzipFileAtPath(path, destination, overwrite, password, error, SSZipArchiveDelegate{});
}

bool SSZipArchive::unzipFileAtPath(const fs::path& path, const fs::path& destination, bool overwrite,
                                   const std::optional<std::string>& password, std::optional<ZRVError>* error,
                                   const SSZipArchiveDelegate& delegate) {
  SSZipArchiveUnzipper unzipper(path, destination, overwrite, password, delegate);
  return unzipper.run(error);
}

bool SSZipArchive::createZipFileAtPath(const fs::path& path, const std::vector<fs::path>& paths) {
  SSZipArchive archive(path);
  if (!archive.open()) return false;
  bool success = true;
  for (const fs::path& file : paths) success = archive.writeFile(file) && success;
  archive.close();
  return success;
}

bool SSZipArchive::createZipFileAtPath(const fs::path& path, const fs::path& directory) {
  std::vector<fs::path> files;
  std::error_code error;
  for (fs::recursive_directory_iterator walk(directory, error), end; !error && walk != end; walk.increment(error)) {
    // Links are not followed and special files (a pipe would block the reader) have nothing to archive.
    if (walk->is_regular_file(error) && !walk->is_symlink(error)) files.push_back(walk->path());
  }
  if (error) return false;
  std::sort(files.begin(), files.end());

  SSZipArchive archive(path);
  if (!archive.open()) return false;
  bool success = true;
  for (const fs::path& file : files) {
    success = archive.writeFileAtPath(file, file.lexically_relative(directory).generic_string()) && success;
  }
  archive.close();
  return success;
}

SSZipArchive::SSZipArchive(fs::path path) : path_(std::move(path)) {}

SSZipArchive::~SSZipArchive() {
  if (zip_) close();
}

bool SSZipArchive::open() {
  if (zip_) close();
  zip_ = zipOpen(path_.c_str(), APPEND_STATUS_CREATE);
  return zip_ != nullptr;
}

bool SSZipArchive::writeFile(const fs::path& path) { return writeFileAtPath(path, std::nullopt); }

bool SSZipArchive::writeFileAtPath(const fs::path& path, const std::optional<std::string>& fileName) {
  if (!zip_) return false;
  UniqueFileDescriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file) return false;
  struct stat attributes {};
  if (::fstat(file.get(), &attributes) != 0 || !S_ISREG(attributes.st_mode)) return false;

  const std::string name = fileName ? *fileName : path.filename().string();
  const Date date = Date(std::chrono::duration_cast<Date::duration>(std::chrono::seconds(attributes.st_mtim.tv_sec)));
  const uLong externalAttributes = ((attributes.st_mode & 07777) + kRegularFileType) << 16;
  const bool large = static_cast<std::uintmax_t>(attributes.st_size) >= kLargeEntrySize;
  return writeEntry(name, date, externalAttributes, large, [&] {
    std::vector<char> buffer(kReadChunkSize);
    for (;;) {
      ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) return false;
      if (count == 0) return true;
      if (zipWriteInFileInZip(zip_, buffer.data(), static_cast<unsigned>(count)) != ZIP_OK) return false;
    }
  });
}

bool SSZipArchive::writeData(const std::optional<ZRVData>& data, const std::string& filename) {
  if (!data || !zip_) return false;
  const bool large = data->size() >= kLargeEntrySize;
  return writeEntry(filename, std::chrono::system_clock::now(), 0, large, [&] {
    // minizip takes at most 4 GiB per call.
    constexpr std::size_t kMaxPiece = 1u << 30;
    for (std::size_t offset = 0; offset < data->size(); offset += kMaxPiece) {
      std::size_t piece = std::min(kMaxPiece, data->size() - offset);
      if (zipWriteInFileInZip(zip_, data->data() + offset, static_cast<unsigned>(piece)) != ZIP_OK) return false;
    }
    return true;
  });
}

bool SSZipArchive::writeEntry(const std::string& name, Date date, unsigned long externalAttributes, bool large,
                              const std::function<bool()>& writeContents) {
  zip_fileinfo info{};
  zipInfo(info.tmz_date, date);
  info.external_fa = externalAttributes;
  if (zipOpenNewFileInZip4_64(zip_, name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr, Z_DEFLATED,
                              Z_DEFAULT_COMPRESSION, 0, -MAX_WBITS, DEF_MEM_LEVEL, Z_DEFAULT_STRATEGY, nullptr, 0,
                              kVersionMadeByUnix, 0, large ? 1 : 0) != ZIP_OK) {
    return false;
  }
  bool written = writeContents();
  bool closed = zipCloseFileInZip(zip_) == ZIP_OK;
  return written && closed;
}

bool SSZipArchive::close() {
  if (zip_) zipClose(zip_, nullptr);
  zip_ = nullptr;
  return true;
}

void SSZipArchive::zipInfo(tm_zip& info, Date date) {
  std::time_t seconds = std::chrono::system_clock::to_time_t(date);
  std::tm local{};
  localtime_r(&seconds, &local);
  info.tm_sec = static_cast<uInt>(local.tm_sec);
  info.tm_min = static_cast<uInt>(local.tm_min);
  info.tm_hour = static_cast<uInt>(local.tm_hour);
  info.tm_mday = static_cast<uInt>(local.tm_mday);
  info.tm_mon = static_cast<uInt>(local.tm_mon);
  info.tm_year = static_cast<uInt>(local.tm_year + 1900);
}

SSZipArchive::Date SSZipArchive::_dateWithMSDOSFormat(unsigned long msdosDateTime) {
  std::tm local{};
  local.tm_year = static_cast<int>((msdosDateTime >> 25) & 0x7F) + 1980 - 1900;
  local.tm_mon = static_cast<int>((msdosDateTime >> 21) & 15) - 1;
  local.tm_mday = static_cast<int>((msdosDateTime >> 16) & 31);
  local.tm_hour = static_cast<int>((msdosDateTime >> 11) & 31);
  local.tm_min = static_cast<int>((msdosDateTime >> 5) & 63);
  local.tm_sec = static_cast<int>(msdosDateTime & 31) * 2;
  local.tm_isdst = -1;  // whatever daylight saving time said on that day
  return std::chrono::system_clock::from_time_t(std::mktime(&local));
}
