#pragma once
// Finding the stored bytes of minizip's current entry in the archive file, for entries that minizip will not
// open even raw (its reader knows only the stored, deflate and bzip2 methods).

#include <unzip.h>

#include <cstddef>
#include <cstdint>
#include <optional>

struct ZipEntryRange {
  std::uint64_t offset;  ///< of the first stored byte in the archive file
  std::uint64_t size;
};

/// The range of the current entry's data, checked to lie inside the file; none for a damaged archive.
std::optional<ZipEntryRange> locateCurrentEntryData(unzFile zip, int archiveFile, std::uint64_t compressedSize);

/// Reads exactly `size` bytes at `offset`; false at the end of the file or on a read error.
bool readAt(int file, std::uint64_t offset, std::uint8_t* buffer, std::size_t size);

/// minizip 1.1 as built here never takes a value from an entry's Zip64 extra field (on a 64-bit system it
/// compares the 32-bit markers with a 64-bit -1): sizes of 4 GiB and more read as 0xFFFFFFFF, and an entry
/// that starts beyond 4 GiB cannot be opened. Sets the sizes of `info` (the current entry's) that stand at
/// their marker from the entry's Zip64 extra field; true when the entry has such a field, whose data then
/// only the archive file itself can give (`ArchiveFileEntryReader`).
bool applyZip64ExtraField(unzFile zip, unz_file_info64& info);
