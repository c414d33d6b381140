#include <ZRVKit/SSZipArchive.h>

#include "zip/FolderWalk.h"
#include "zip/SSZipArchiveUnzipper.h"
#include "zip/Zip64EndRecord.h"
#include "zip/ZipDestination.h"

#include <ZRVKit/ZRVLog.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

using namespace zrv::zip;

namespace fs = std::filesystem;

namespace {

// Large reads keep minizip's deflate busy with few calls; the buffer is the writer's only sizeable memory.
constexpr std::size_t kReadChunkSize = 256 * 1024;
// "Made by" Unix (3), format version 3.0: readers then take the permissions from the upper attribute bits.
constexpr uLong kVersionMadeByUnix = (3 << 8) | 30;
constexpr uLong kRegularFileType = 0x8000;
// What Info-ZIP gives an entry made from memory (-rw-r--r--) and a folder (drwxr-xr-x, with the MS-DOS
// folder attribute in the low byte for readers that look there).
constexpr uLong kDataEntryAttributes = (kRegularFileType | 0644) << 16;
constexpr uLong kFolderEntryAttributes = ((0x4000 | 0755) << 16) | 0x10;
// Sizes from here on are kept in the 64-bit fields.
constexpr std::uint64_t kSize32Limit = 0xFFFFFFFFu;
// DOS dates count years from 1980 in seven bits.
constexpr uInt kFirstDosYear = 1980;
constexpr uInt kLastDosYear = 2107;

// minizip decides at an entry's opening whether the entry gets the 64-bit size fields, before it knows the
// compressed size, and only an entry that gets them may grow past 4 GiB. It is asked for them when either size
// could reach the limit: deflate can make incompressible data a little larger (zlib's compressBound), so data
// just below 4 GiB gets them too. (For an entry below 4 GiB minizip's local header then holds the sizes twice,
// which 7-Zip reports as a header warning; every reader still reads it.)
bool needsZip64(std::uint64_t size) { return size >= kSize32Limit || compressBound(size) >= kSize32Limit; }

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
  std::optional<std::vector<fs::path>> files = filesBelow(directory);
  if (!files) return false;

  SSZipArchive archive(path);
  if (!archive.open()) return false;
  bool success = true;
  for (const fs::path& file : *files) {
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
  zip_ = zipOpen64(path_.c_str(), APPEND_STATUS_CREATE);
  return zip_ != nullptr;
}

bool SSZipArchive::writeFile(const fs::path& path) { return writeFileAtPath(path, std::nullopt); }

bool SSZipArchive::writeFileAtPath(const fs::path& path, const std::optional<std::string>& fileName) {
  if (!zip_) return false;
  UniqueFileDescriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file) return false;
  struct ::stat attributes {};
  if (::fstat(file.get(), &attributes) != 0 || !S_ISREG(attributes.st_mode)) return false;

  const std::string name = fileName ? *fileName : path.filename().string();
  const Date date = Date(std::chrono::duration_cast<Date::duration>(std::chrono::seconds(attributes.st_mtim.tv_sec)));
  const uLong externalAttributes = ((attributes.st_mode & 07777) + kRegularFileType) << 16;
  // The size at the opening decides: a file still growing past 4 GiB would outgrow its local header.
  const bool large = needsZip64(static_cast<std::uint64_t>(attributes.st_size));
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
  const bool large = needsZip64(data->size());
  const bool isFolder = !filename.empty() && filename.back() == '/';
  const uLong attributes = isFolder ? kFolderEntryAttributes : kDataEntryAttributes;
  return writeEntry(filename, std::chrono::system_clock::now(), attributes, large, [&] {
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
  // A DOS date cannot say earlier than 1980 or later than 2107: such dates become the nearest it can say.
  const int year = static_cast<int>(info.tmz_date.tm_year);  // negative before year 0
  if (year < static_cast<int>(kFirstDosYear)) info.tmz_date = tm_zip{0, 0, 0, 1, 0, kFirstDosYear};
  if (year > static_cast<int>(kLastDosYear)) info.tmz_date = tm_zip{58, 59, 23, 31, 11, kLastDosYear};
  info.external_fa = externalAttributes;
  if (zipOpenNewFileInZip4_64(zip_, name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr, Z_DEFLATED,
                              Z_DEFAULT_COMPRESSION, 0, -MAX_WBITS, DEF_MEM_LEVEL, Z_DEFAULT_STRATEGY, nullptr, 0,
                              kVersionMadeByUnix, 0, large ? 1 : 0) != ZIP_OK) {
    return false;
  }
  hasZip64Entries_ = hasZip64Entries_ || large;
  bool written = writeContents();
  bool closed = zipCloseFileInZip(zip_) == ZIP_OK;
  return written && closed;
}

bool SSZipArchive::close() {
  if (zip_ && zipClose(zip_, nullptr) == ZIP_OK && !completeZip64Fields(path_, hasZip64Entries_)) {
    ZRVLog::format("[SSZipArchive] Error: %@", "could not complete the Zip64 records of " + path_.string());
  }
  zip_ = nullptr;
  hasZip64Entries_ = false;
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
