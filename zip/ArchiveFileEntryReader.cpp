#include "zip/ArchiveFileEntryReader.h"

#include "zip/ZipEntryData.h"

#include <fcntl.h>

#include <algorithm>

namespace zrv::zip {

std::unique_ptr<ZipEntryReader> ArchiveFileEntryReader::open(unzFile zip, const std::filesystem::path& archive,
                                                             const unz_file_info64& info) {
  if (!supportsMethod(static_cast<int>(info.compression_method))) return nullptr;
  UniqueFileDescriptor file(::open(archive.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return nullptr;
  const std::optional<ZipEntryRange> range = locateCurrentEntryData(zip, file.get(), info.compressed_size);
  if (!range) return nullptr;
  return std::unique_ptr<ZipEntryReader>(new ArchiveFileEntryReader(info, std::move(file), range->offset, range->size));
}

ArchiveFileEntryReader::ArchiveFileEntryReader(const unz_file_info64& info, UniqueFileDescriptor archive,
                                               std::uint64_t dataOffset, std::uint64_t dataSize)
    : DecryptingEntryReader(static_cast<int>(info.compression_method), info.uncompressed_size,
                            static_cast<std::uint32_t>(info.crc)),
      archive_(std::move(archive)), dataOffset_(dataOffset), dataSize_(dataSize) {}

long ArchiveFileEntryReader::decryptedBytes(std::uint8_t* buffer, std::size_t size) {
  const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(size, dataSize_ - position_));
  if (count == 0) return 0;
  if (!readAt(archive_.get(), dataOffset_ + position_, buffer, count)) return -1;
  position_ += count;
  return static_cast<long>(count);
}

}  // namespace zrv::zip
