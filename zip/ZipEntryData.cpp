#include "zip/ZipEntryData.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace zrv::zip {

namespace {

constexpr std::size_t kMaxCommentSize = 0xffff;
constexpr std::size_t kLocalHeaderSize = 30;
constexpr std::uint32_t kNone32 = 0xffffffff;

}  // namespace

bool readAt(int file, std::uint64_t offset, std::uint8_t* buffer, std::size_t size) {
  while (size > 0) {
    const ssize_t count = ::pread(file, buffer, size, static_cast<off_t>(offset));
    if (count <= 0) return false;
    buffer += count;
    size -= static_cast<std::size_t>(count);
    offset += static_cast<std::uint64_t>(count);
  }
  return true;
}

namespace {

// Bytes in front of the archive proper (a self-extractor's stub): every offset inside the archive is off by
// them. Found the way minizip finds them, from where the directory of entries ends and where it claims to.
std::optional<std::uint64_t> bytesBeforeArchive(int file, std::uint64_t fileSize) {
  const std::size_t tailSize = static_cast<std::size_t>(std::min<std::uint64_t>(fileSize, kEndRecordSize + kMaxCommentSize));
  std::vector<std::uint8_t> tail(tailSize);
  if (tailSize < kEndRecordSize || !readAt(file, fileSize - tailSize, tail.data(), tailSize)) return std::nullopt;
  std::size_t at = tailSize - kEndRecordSize + 1;
  do {
    if (at-- == 0) return std::nullopt;
  } while (!hasSignature(&tail[at], 5, 6));
  std::uint64_t endPosition = fileSize - tailSize + at;
  std::uint64_t directorySize = little(&tail[at + 12], 4);
  std::uint64_t directoryOffset = little(&tail[at + 16], 4);
  // The Zip64 end record stands between the directory and the end record whenever there is one, also when
  // the end record's own fields need none of it (Info-ZIP writes it for every archive with a Zip64 entry).
  std::uint8_t locator[kZip64LocatorSize];
  const bool hasLocator = endPosition >= kZip64LocatorSize &&
                          readAt(file, endPosition - kZip64LocatorSize, locator, sizeof locator) &&
                          hasSignature(locator, 6, 7);
  if (directoryOffset == kNone32 || directorySize == kNone32 || little(&tail[at + 10], 2) == 0xffff || hasLocator) {
    std::uint8_t record[kZip64EndRecordSize];
    if (!hasLocator) return std::nullopt;
    endPosition = little(locator + 8, 8);
    if (!readAt(file, endPosition, record, sizeof record) || !hasSignature(record, 6, 6)) return std::nullopt;
    directorySize = little(record + 40, 8);
    directoryOffset = little(record + 48, 8);
  }
  if (directoryOffset > endPosition || directorySize > endPosition - directoryOffset) return std::nullopt;
  return endPosition - directoryOffset - directorySize;
}

// The local header's offset from the zip64 extra field, which holds the sizes first when they did not fit.
std::optional<std::uint64_t> zip64LocalHeaderOffset(const std::uint8_t* extra, std::size_t size,
                                                    const std::uint8_t* record) {
  for (std::size_t at = 0; at + 4 <= size;) {
    const std::size_t length = static_cast<std::size_t>(little(extra + at + 2, 2));
    if (at + 4 + length > size) return std::nullopt;
    if (little(extra + at, 2) == 0x0001) {
      std::size_t skip = (little(record + 24, 4) == kNone32 ? 8 : 0) + (little(record + 20, 4) == kNone32 ? 8 : 0);
      if (skip + 8 > length) return std::nullopt;
      return little(extra + at + 4 + skip, 8);
    }
    at += 4 + length;
  }
  return std::nullopt;
}

}  // namespace

std::optional<ZipEntryRange> locateCurrentEntryData(unzFile zip, int archiveFile, std::uint64_t compressedSize) {
  struct stat info {};
  unz64_file_pos position{};
  if (::fstat(archiveFile, &info) != 0 || !S_ISREG(info.st_mode) || unzGetFilePos64(zip, &position) != UNZ_OK) {
    return std::nullopt;
  }
  const std::uint64_t fileSize = static_cast<std::uint64_t>(info.st_size);
  const std::optional<std::uint64_t> before = bytesBeforeArchive(archiveFile, fileSize);
  if (!before) return std::nullopt;

  std::uint8_t record[kCentralRecordSize];
  const std::uint64_t recordPosition = position.pos_in_zip_directory + *before;
  if (!readAt(archiveFile, recordPosition, record, sizeof record) || !hasSignature(record, 1, 2)) return std::nullopt;
  std::uint64_t localOffset = little(record + 42, 4);
  if (localOffset == kNone32) {
    const std::size_t nameSize = static_cast<std::size_t>(little(record + 28, 2));
    std::vector<std::uint8_t> extra(static_cast<std::size_t>(little(record + 30, 2)));
    if (!readAt(archiveFile, recordPosition + kCentralRecordSize + nameSize, extra.data(), extra.size())) {
      return std::nullopt;
    }
    const std::optional<std::uint64_t> offset = zip64LocalHeaderOffset(extra.data(), extra.size(), record);
    if (!offset) return std::nullopt;
    localOffset = *offset;
  }

  std::uint8_t header[kLocalHeaderSize];
  if (localOffset > fileSize - *before) return std::nullopt;
  const std::uint64_t headerPosition = localOffset + *before;
  if (!readAt(archiveFile, headerPosition, header, sizeof header) || !hasSignature(header, 3, 4)) return std::nullopt;
  const std::uint64_t dataOffset = headerPosition + kLocalHeaderSize + little(header + 26, 2) + little(header + 28, 2);
  if (dataOffset > fileSize || compressedSize > fileSize - dataOffset) return std::nullopt;
  return ZipEntryRange{dataOffset, compressedSize};
}

bool applyZip64ExtraField(unzFile zip, unz_file_info64& info) {
  std::vector<std::uint8_t> extra(info.size_file_extra);
  unz_file_info64 ignored{};
  if (extra.empty() ||
      unzGetCurrentFileInfo64(zip, &ignored, nullptr, 0, extra.data(), extra.size(), nullptr, 0) != UNZ_OK) {
    return false;
  }
  for (std::size_t at = 0; at + 4 <= extra.size();) {
    const std::size_t length = static_cast<std::size_t>(little(&extra[at + 2], 2));
    if (at + 4 + length > extra.size()) return false;
    if (little(&extra[at], 2) == 0x0001) {
      // The values stand in a fixed order, each only when its 32-bit field holds the marker.
      const std::uint8_t* value = &extra[at + 4];
      const std::uint8_t* end = value + length;
      for (ZPOS64_T* size : {&info.uncompressed_size, &info.compressed_size}) {
        if (*size != kNone32) continue;
        if (end - value < 8) return true;
        *size = little(value, 8);
        value += 8;
      }
      return true;
    }
    at += 4 + length;
  }
  return false;
}

}  // namespace zrv::zip
