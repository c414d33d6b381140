#include "zip/SSZipArchiveUnzipper.h"

#include "zip/BufferedArchiveFile.h"
#include "zip/ZipEntryData.h"

#include <ZRVKit/ZRVLog.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace zrv::zip {

namespace fs = std::filesystem;

namespace {

// Large chunks keep minizip's inflate and the writes busy with few calls; the buffer is the unpacker's only
// sizeable memory, whatever the size of the entry.
constexpr std::size_t kChunkSize = 256 * 1024;
// A link target longer than a path may be is not a link target.
constexpr std::size_t kMaxLinkTarget = 4096;
// Only the permission bits: set-user-ID, set-group-ID and sticky bits from an archive are never restored.
constexpr mode_t kPermissionBits = 0777;

timespec timespecOf(SSZipArchive::Date date) {
  auto since = date.time_since_epoch();
  auto seconds = std::chrono::floor<std::chrono::seconds>(since);
  auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(since - seconds);
  return timespec{static_cast<time_t>(seconds.count()), static_cast<long>(nanoseconds.count())};
}

// An archive of no entries: an end record at the start of the file, with no entries and its comment after it.
bool isEmptyArchive(const fs::path& path) {
  UniqueFileDescriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct ::stat info {};
  if (!file || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
  unsigned char record[kEndRecordSize];
  if (::read(file.get(), record, sizeof record) != static_cast<ssize_t>(sizeof record)) return false;
  const unsigned char signature[] = {'P', 'K', 5, 6};
  const std::size_t commentSize = record[20] | (record[21] << 8);
  return std::equal(std::begin(signature), std::end(signature), record) && record[8] == 0 && record[9] == 0 &&
         record[10] == 0 && record[11] == 0 && static_cast<std::size_t>(info.st_size) == kEndRecordSize + commentSize;
}

// minizip's 64-bit records carry the same fields as the ones the delegate is given; on this platform the
// sizes fit either way.
unz_global_info globalInfoOf(const unz_global_info64& info) {
  return unz_global_info{static_cast<uLong>(info.number_entry), info.size_comment};
}

unz_file_info fileInfoOf(const unz_file_info64& info) {
  // By name, so that no value can land in a neighbouring field.
  return {.version = info.version, .version_needed = info.version_needed, .flag = info.flag,
          .compression_method = info.compression_method, .dosDate = info.dosDate, .crc = info.crc,
          .compressed_size = static_cast<uLong>(info.compressed_size),
          .uncompressed_size = static_cast<uLong>(info.uncompressed_size), .size_filename = info.size_filename,
          .size_file_extra = info.size_file_extra, .size_file_comment = info.size_file_comment,
          .disk_num_start = info.disk_num_start, .internal_fa = info.internal_fa, .external_fa = info.external_fa,
          .tmu_date = info.tmu_date};
}

bool isAllZero(const char* bytes, std::size_t size) {
  return size > 0 && bytes[0] == 0 && std::memcmp(bytes, bytes + 1, size - 1) == 0;
}

}  // namespace

SSZipArchiveUnzipper::SSZipArchiveUnzipper(const fs::path& path, const fs::path& destination, bool overwrite,
                                           const std::optional<std::string>& password,
                                           const SSZipArchiveDelegate& delegate)
    : path_(path), destinationPath_(destination), overwrite_(overwrite), password_(password), delegate_(delegate),
      buffer_(kChunkSize) {}

bool SSZipArchiveUnzipper::run(std::optional<ZRVError>* error) {
  auto openFailure = [&](long code, const char* description) {
    if (error) {
      *error = ZRVError(std::string(SSZipArchive::kErrorDomain), code,
                        ZRVJSON{{std::string(ZRVError::kLocalizedDescriptionKey), description}});
    }
    return false;
  };
  // The 64-bit calls read the Zip64 end record (more than 65,535 entries) and the Zip64 sizes of entries.
  zlib_filefunc64_def functions = bufferedArchiveFileFunctions();
  zip_ = unzOpen2_64(path_.c_str(), &functions);
  if (!zip_) {
    // minizip cannot open an archive that consists of nothing but its end record; it has no first entry.
    if (isEmptyArchive(path_)) {
      return openFailure(SSZipArchive::kErrorFailedToOpenFirstFile, "failed to open first file in zip file");
    }
    return openFailure(SSZipArchive::kErrorFailedToOpenZipFile, "failed to open zip file");
  }
  unz_global_info64 globalInfo64{};
  unzGetGlobalInfo64(zip_, &globalInfo64);
  const unz_global_info globalInfo = globalInfoOf(globalInfo64);
  if (unzGoToFirstFile(zip_) != UNZ_OK) {
    unzClose(zip_);
    return openFailure(SSZipArchive::kErrorFailedToOpenFirstFile, "failed to open first file in zip file");
  }
  destinationFolder_.emplace(destinationPath_);
  if (destination().openError() != 0) {
    ZRVLog::format("[SSZipArchive] Error: %@",
                   ZRVError::file(destination().openError(), destination().root()).localizedDescription());
    unzClose(zip_);
    return false;
  }

  if (delegate_.zipArchiveWillUnzipArchiveAtPath) delegate_.zipArchiveWillUnzipArchiveAtPath(path_, globalInfo);

  const long total = static_cast<long>(globalInfo64.number_entry);
  long index = 0;
  bool success = true;
  bool everyEntryWritten = true;
  int next = UNZ_OK;
  std::uint64_t visited = 0;
  do {
    unz_file_info64 info{};
    // Room for the whole name and its terminator, so that minizip never has to cut it short.
    std::vector<char> nameBuffer;
    if (unzGetCurrentFileInfo64(zip_, &info, nullptr, 0, nullptr, 0, nullptr, 0) == UNZ_OK) {
      nameBuffer.assign(info.size_filename + 1, '\0');
    }
    if (nameBuffer.empty() ||
        unzGetCurrentFileInfo64(zip_, &info, nameBuffer.data(), nameBuffer.size(), nullptr, 0, nullptr, 0) !=
            UNZ_OK) {
      success = false;
      break;
    }
    const bool hasZip64Fields = applyZip64ExtraField(zip_, info);
    reader_ = ZipEntryReader::open(zip_, path_, password_, info, hasZip64Fields);
    if (!reader_) {
      success = false;
      break;
    }
    std::string name(nameBuffer.data(), info.size_filename);
    const unz_file_info delegateInfo = fileInfoOf(info);
    if (delegate_.zipArchiveWillUnzipFileAtIndex) {
      delegate_.zipArchiveWillUnzipFileAtIndex(index, total, path_, delegateInfo);
    }

    // Without a password an encrypted entry reads as noise: it cannot be read, like a damaged one.
    constexpr uLong kEncrypted = 1;
    Outcome outcome = (info.flag & kEncrypted) && !(password_ && !password_->empty())
                          ? Outcome::readFailed
                          : unpackCurrentEntry(info, name);
    // The checksum is verified when an entry was read to its end; a mismatch is unreadable data.
    if (!reader_->close() && outcome != Outcome::skipped) {
      ZRVLog::format("[SSZipArchive] Error: %@", "checksum mismatch in \"" + name + "\"");
      outcome = Outcome::readFailed;
    }
    if (outcome == Outcome::readFailed) {
      success = false;
      break;
    }
    if (outcome == Outcome::refused || outcome == Outcome::failed) everyEntryWritten = false;
    if (outcome == Outcome::unpacked) {
      if (delegate_.zipArchiveDidUnzipFileAtIndex) {
        delegate_.zipArchiveDidUnzipFileAtIndex(index, total, path_, delegateInfo);
      }
      ++index;
    }
    next = unzGoToNextFile(zip_);
    ++visited;
  } while (next == UNZ_OK);
  // An end record that counts 0xFFFF entries without a Zip64 end record to say how many (minizip's own
  // archives of that many entries): minizip reads on to the end of the directory, where it finds no entry.
  constexpr std::uint64_t kCountInZip64Record = 0xFFFF;
  if (next == UNZ_BADZIPFILE && globalInfo64.number_entry == kCountInZip64Record && visited >= kCountInZip64Record) {
    next = UNZ_END_OF_LIST_OF_FILE;
  }
  if (next != UNZ_OK && next != UNZ_END_OF_LIST_OF_FILE) success = false;  // a damaged directory of entries
  reader_.reset();
  unzClose(zip_);
  zip_ = nullptr;

  setRememberedAttributes();

  success = success && everyEntryWritten;
  if (success && delegate_.zipArchiveDidUnzipArchiveAtPath) {
    delegate_.zipArchiveDidUnzipArchiveAtPath(path_, globalInfo, destination().root());
  }
  return success;
}

SSZipArchiveUnzipper::Outcome SSZipArchiveUnzipper::unpackCurrentEntry(const unz_file_info64& info,
                                                                       const std::string& name) {
  const bool isLink = info.compression_method == 0 && (info.external_fa & 0xF000) == 0x4000 &&
                      info.compressed_size != 0;
  const bool isDirectory = !name.empty() && (name.back() == '/' || name.back() == '\\');
  std::string reason;
  auto parts = ZipDestination::partsOfName(name, reason);
  if (!parts) return refuse(name, reason);
  if (parts->empty()) {
    if (isDirectory) return Outcome::unpacked;  // "./" names the destination itself
    return refuse(name, "the name is empty");
  }

  const SSZipArchive::Date date = SSZipArchive::_dateWithMSDOSFormat(info.dosDate);
  const std::size_t folderCount = isDirectory ? parts->size() : parts->size() - 1;
  UniqueFileDescriptor folder = destination().openFolder(*parts, folderCount, true);
  if (!folder) {
    int errorNumber = errno;
    if (errorNumber == ELOOP || errorNumber == ENOTDIR) {
      return refuse(name, "a symbolic link or a file stands where a folder should be");
    }
    ZRVLog::format("[SSZipArchive] Error: %@",
                   ZRVError::file(errorNumber, destination().pathOf(*parts)).localizedDescription());
    return Outcome::failed;
  }
  if (isDirectory) {
    mode_t mode = info.external_fa >= 0x10000 ? static_cast<mode_t>((info.external_fa >> 16) & kPermissionBits) : 0;
    remembered_.push_back({*parts, date, true, mode});
    return Outcome::unpacked;
  }

  struct ::stat existing {};
  const bool exists = ::fstatat(folder.get(), parts->back().c_str(), &existing, AT_SYMLINK_NOFOLLOW) == 0;
  if (exists && !overwrite_) return Outcome::skipped;
  if (isLink) return unpackLink(info, name, *parts, folder.get());
  return unpackFile(info, name, *parts, folder.get(), exists, existing);
}

SSZipArchiveUnzipper::Outcome SSZipArchiveUnzipper::unpackLink(const unz_file_info64& info, const std::string& name,
                                                               const ZipDestination::Parts& parts, int folder) {
  std::string target;
  for (;;) {
    int count = reader_->read(buffer_.data(), static_cast<unsigned>(buffer_.size()));
    if (count < 0) return Outcome::readFailed;
    if (count == 0) break;
    if (target.size() + static_cast<std::size_t>(count) > kMaxLinkTarget) {
      return refuse(name, "the link target is too long");
    }
    target.append(buffer_.data(), static_cast<std::size_t>(count));
  }
  if (target.size() != info.uncompressed_size) return Outcome::readFailed;
  if (!ZipDestination::isLinkTargetInside(target, parts.size() - 1)) {
    return refuse(name, "the link would point outside the destination");
  }
  if (::symlinkat(target.c_str(), folder, parts.back().c_str()) != 0) {
    ZRVLog::format("Failed to create symbolic link at \"%@\" to \"%@\". symlink() error code: %d",
                   destination().pathOf(parts), target, errno);
  }
  return Outcome::unpacked;
}

SSZipArchiveUnzipper::Outcome SSZipArchiveUnzipper::unpackFile(const unz_file_info64& info, const std::string& name,
                                                               const ZipDestination::Parts& parts, int folder,
                                                               bool exists, const struct ::stat& existing) {
  const fs::path fullPath = destination().pathOf(parts);
  const char* leaf = parts.back().c_str();
  // A link, a device or a file with other names is replaced rather than written through.
  if (exists && !S_ISDIR(existing.st_mode) && (!S_ISREG(existing.st_mode) || existing.st_nlink > 1)) {
    if (::unlinkat(folder, leaf, 0) != 0) return fail(fullPath, errno);
  }
  UniqueFileDescriptor file(
      ::openat(folder, leaf, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
  if (!file) {
    if (errno == ELOOP) return refuse(name, "a symbolic link stands at its place");
    return fail(fullPath, errno);
  }
  struct ::stat opened {};
  if (::fstat(file.get(), &opened) != 0 || !S_ISREG(opened.st_mode)) return refuse(name, "not a regular file");

  // What a failed decryption has written is no part of the entry: it goes.
  auto readFailed = [&] {
    if (reader_->decrypts()) ::unlinkat(folder, leaf, 0);
    return Outcome::readFailed;
  };
  int writeError = 0;
  std::uint64_t total = 0;
  bool endsInHole = false;
  for (;;) {
    int count = reader_->read(buffer_.data(), static_cast<unsigned>(buffer_.size()));
    if (count < 0) return readFailed();
    if (count == 0) break;
    total += static_cast<std::uint64_t>(count);
    // Runs of zeros (as in disk images and sparse files) become holes: the file reads the same and takes
    // no room for them. The file was truncated at opening, so whatever is skipped reads as zeros.
    endsInHole = isAllZero(buffer_.data(), static_cast<std::size_t>(count));
    if (endsInHole && writeError == 0) {
      if (::lseek(file.get(), count, SEEK_CUR) < 0) writeError = errno;
      continue;
    }
    const char* data = buffer_.data();
    std::size_t left = static_cast<std::size_t>(count);
    while (left > 0 && writeError == 0) {
      ssize_t written = ::write(file.get(), data, left);
      if (written < 0) {
        if (errno != EINTR) writeError = errno;
        continue;
      }
      data += written;
      left -= static_cast<std::size_t>(written);
    }
  }
  // A damaged stream can end early, and minizip checks the checksum only of entries read to their end.
  if (total != info.uncompressed_size) return readFailed();
  if (endsInHole && writeError == 0 && ::ftruncate(file.get(), static_cast<off_t>(total)) != 0) writeError = errno;
  if (writeError != 0) return fail(fullPath, writeError);

  const SSZipArchive::Date date = SSZipArchive::_dateWithMSDOSFormat(info.dosDate);
  if (info.dosDate != 0) {
    timespec times[2] = {{0, UTIME_OMIT}, timespecOf(date)};
    if (::futimens(file.get(), times) != 0) {
      ZRVLog::write("[SSZipArchive] Failed to set attributes - whilst setting modification date");
    }
  }
  if (info.external_fa >= 0x10000) {
    if (::fchmod(file.get(), static_cast<mode_t>((info.external_fa >> 16) & kPermissionBits)) != 0) {
      ZRVLog::write("[SSZipArchive] Failed to set attributes - whilst setting permissions");
    }
  }
  remembered_.push_back({parts, date, false, 0});
  return Outcome::unpacked;
}

SSZipArchiveUnzipper::Outcome SSZipArchiveUnzipper::refuse(const std::string& name, std::string_view reason) {
  ZRVLog::format("[SSZipArchive] Refused to unpack \"%@\": %@.", name, reason);
  return Outcome::refused;
}

SSZipArchiveUnzipper::Outcome SSZipArchiveUnzipper::fail(const fs::path& path, int errorNumber) {
  ZRVLog::format("[SSZipArchive] Error: %@", ZRVError::file(errorNumber, path).localizedDescription());
  return Outcome::failed;
}

void SSZipArchiveUnzipper::setRememberedAttributes() {
  // Deepest entries come last in an archive: going backwards dates the contents before their folders.
  for (auto entry = remembered_.rbegin(); entry != remembered_.rend(); ++entry) {
    const fs::path fullPath = destination().pathOf(entry->parts);
    int errorNumber = 0;
    UniqueFileDescriptor folder = destination().openFolder(entry->parts, entry->parts.size() - 1, false);
    if (!folder) errorNumber = errno;
    if (folder) {
      const timespec times[2] = {{0, UTIME_OMIT}, timespecOf(entry->date)};
      if (entry->isDirectory) {
        UniqueFileDescriptor directory(::openat(folder.get(), entry->parts.back().c_str(),
                                                O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!directory || ::futimens(directory.get(), times) != 0 ||
            (entry->mode != 0 && ::fchmod(directory.get(), entry->mode) != 0)) {
          errorNumber = errno;
        }
      } else if (::utimensat(folder.get(), entry->parts.back().c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
        errorNumber = errno;
      }
    }
    if (errorNumber != 0) {
      ZRVLog::format("[SSZipArchive] Set attributes failed for directory: %@.", fullPath);
      ZRVLog::format("[SSZipArchive] Error setting directory file modification date attribute: %@",
                     ZRVError::file(errorNumber, fullPath).localizedDescription());
    }
  }
}

}  // namespace zrv::zip
