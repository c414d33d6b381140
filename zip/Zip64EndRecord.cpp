#include "zip/Zip64EndRecord.h"

#include "zip/ZipDestination.h"
#include "zip/ZipEntryData.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <optional>

namespace zrv::zip {

namespace {

constexpr std::uint16_t kCountInZip64Record = 0xFFFF;
constexpr std::uint32_t kOffsetInZip64Record = 0xFFFFFFFF;
// Made by Unix, format 3.0, as the entries; 4.5 is the version that knows the 64-bit fields.
constexpr std::uint16_t kVersionMadeBy = (3 << 8) | 30;
constexpr std::uint16_t kVersionNeeded = 45;

void putLittle(std::uint8_t* bytes, std::uint64_t value, int count) {
  for (int i = 0; i < count; ++i, value >>= 8) bytes[i] = static_cast<std::uint8_t>(value & 0xff);
}

bool writeAll(int file, const std::uint8_t* bytes, std::size_t size, std::uint64_t offset) {
  while (size > 0) {
    const ssize_t written = ::pwrite(file, bytes, size, static_cast<off_t>(offset));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes += written;
    size -= static_cast<std::size_t>(written);
    offset += static_cast<std::uint64_t>(written);
  }
  return true;
}

// Counts the directory's records (the classic end record counts in 16 bits) and gives the records of Zip64
// entries back the Unix "made by" that minizip replaces with a bare 45 (MS-DOS), without which Info-ZIP
// ignores their permissions.
std::optional<std::uint64_t> walkDirectory(int file, std::uint64_t offset, std::uint64_t size) {
  constexpr std::uint16_t kMinizipZip64MadeBy = 45;
  std::uint64_t count = 0;
  for (std::uint64_t at = 0; at < size; ++count) {
    std::uint8_t record[kCentralRecordSize];
    if (size - at < kCentralRecordSize || !readAt(file, offset + at, record, sizeof record) ||
        !hasSignature(record, 1, 2)) {
      return std::nullopt;
    }
    if (little(record + 4, 2) == kMinizipZip64MadeBy) {
      std::uint8_t madeBy[2];
      putLittle(madeBy, kVersionMadeBy, 2);
      if (!writeAll(file, madeBy, sizeof madeBy, offset + at + 4)) return std::nullopt;
    }
    at += kCentralRecordSize + little(record + 28, 2) + little(record + 30, 2) + little(record + 32, 2);
  }
  return count;
}

}  // namespace

bool completeZip64Fields(const std::filesystem::path& archive, bool hasZip64Entries) {
  UniqueFileDescriptor file(::open(archive.c_str(), O_RDWR | O_CLOEXEC));
  struct stat info {};
  if (!file || ::fstat(file.get(), &info) != 0 || static_cast<std::uint64_t>(info.st_size) < kEndRecordSize) {
    return false;
  }
  const std::uint64_t endPosition = static_cast<std::uint64_t>(info.st_size) - kEndRecordSize;
  std::uint8_t end[kEndRecordSize];
  if (!readAt(file.get(), endPosition, end, sizeof end) || !hasSignature(end, 5, 6) || little(end + 20, 2) != 0) {
    return false;
  }
  std::uint64_t directorySize = little(end + 12, 4);
  std::uint64_t directoryOffset = little(end + 16, 4);
  std::uint64_t directoryEnd = endPosition;
  // minizip writes the Zip64 records itself only when the directory starts beyond 4 GiB.
  const bool hasZip64EndRecord = directoryOffset == kOffsetInZip64Record;
  const bool needsZip64EndRecord = !hasZip64EndRecord && little(end + 10, 2) == kCountInZip64Record;
  // Entries that start beyond 4 GiB get Zip64 fields too.
  const bool beyond4GiB = static_cast<std::uint64_t>(info.st_size) >= kOffsetInZip64Record;
  if (!needsZip64EndRecord && !hasZip64Entries && !beyond4GiB) return true;
  if (hasZip64EndRecord) {
    std::uint8_t record[kZip64EndRecordSize];
    directoryEnd = endPosition - kZip64LocatorSize - kZip64EndRecordSize;
    if (endPosition < kZip64LocatorSize + kZip64EndRecordSize ||
        !readAt(file.get(), directoryEnd, record, sizeof record) || !hasSignature(record, 6, 6)) {
      return false;
    }
    directorySize = little(record + 40, 8);
    directoryOffset = little(record + 48, 8);
  }
  if (directoryOffset + directorySize != directoryEnd) return false;
  const std::optional<std::uint64_t> entries = walkDirectory(file.get(), directoryOffset, directorySize);
  if (!entries) return false;
  if (!needsZip64EndRecord) return true;

  std::array<std::uint8_t, kZip64EndRecordSize + kZip64LocatorSize + kEndRecordSize> tail{};
  std::uint8_t* record = tail.data();
  putLittle(record, 0x06064b50, 4);
  putLittle(record + 4, kZip64EndRecordSize - 12, 8);  // the size of what follows this field
  putLittle(record + 12, kVersionMadeBy, 2);
  putLittle(record + 14, kVersionNeeded, 2);
  // Disk numbers (+16, +20) stay 0: a single-file archive.
  putLittle(record + 24, *entries, 8);
  putLittle(record + 32, *entries, 8);
  putLittle(record + 40, directorySize, 8);
  putLittle(record + 48, directoryOffset, 8);
  std::uint8_t* locator = record + kZip64EndRecordSize;
  putLittle(locator, 0x07064b50, 4);
  putLittle(locator + 8, endPosition, 8);  // where the Zip64 end record goes
  putLittle(locator + 16, 1, 4);           // disks in all
  std::copy(std::begin(end), std::end(end), locator + kZip64LocatorSize);
  return writeAll(file.get(), tail.data(), tail.size(), endPosition);
}

}  // namespace zrv::zip
