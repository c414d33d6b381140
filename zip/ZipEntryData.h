#pragma once
// Finding the stored bytes of minizip's current entry in the archive file, for entries that minizip will not
// open even raw (its reader knows only the stored, deflate and bzip2 methods).

#include <unzip.h>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace zrv::zip {

struct ZipEntryRange {
  std::uint64_t offset;  ///< of the first stored byte in the archive file
  std::uint64_t size;
};

/// The range of the current entry's data, checked to lie inside the file; none for a damaged archive.
std::optional<ZipEntryRange> locateCurrentEntryData(unzFile zip, int archiveFile, std::uint64_t compressedSize);

/// Sizes of the archive's fixed records.
inline constexpr std::size_t kEndRecordSize = 22;
inline constexpr std::size_t kZip64EndRecordSize = 56;
inline constexpr std::size_t kZip64LocatorSize = 20;
inline constexpr std::size_t kCentralRecordSize = 46;

/// The little-endian number in the `count` bytes at `bytes`.
inline std::uint64_t little(const std::uint8_t* bytes, int count) {
  std::uint64_t value = 0;
  for (int i = count - 1; i >= 0; --i) value = value << 8 | bytes[i];
  return value;
}

/// Whether a record starts at `bytes` with the signature "PK" `third` `fourth`.
inline bool hasSignature(const std::uint8_t* bytes, std::uint8_t third, std::uint8_t fourth) {
  return bytes[0] == 'P' && bytes[1] == 'K' && bytes[2] == third && bytes[3] == fourth;
}

/// Reads exactly `size` bytes at `offset`; false at the end of the file or on a read error.
bool readAt(int file, std::uint64_t offset, std::uint8_t* buffer, std::size_t size);

/// minizip 1.1 as built here never takes a value from an entry's Zip64 extra field (on a 64-bit system it
/// compares the 32-bit markers with a 64-bit -1): sizes of 4 GiB and more read as 0xFFFFFFFF, and an entry
/// that starts beyond 4 GiB cannot be opened. Sets the sizes of `info` (the current entry's) that stand at
/// their marker from the entry's Zip64 extra field; true when the entry has such a field, whose data then
/// only the archive file itself can give (`ArchiveFileEntryReader`).
bool applyZip64ExtraField(unzFile zip, unz_file_info64& info);

}  // namespace zrv::zip
