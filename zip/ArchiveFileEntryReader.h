#pragma once
// An entry read straight from the archive file, for entries with Zip64 fields, which minizip 1.1 as built here
// cannot read past 4 GiB (see applyZip64ExtraField). Inflating and the size and checksum checks are those of
// the decrypting reader, with nothing to decrypt.

#include "zip/DecryptingEntryReader.h"
#include "zip/ZipDestination.h"

namespace zrv::zip {

class ArchiveFileEntryReader final : public DecryptingEntryReader {
 public:
  /// None for a compression method not known here or data that does not lie inside the file.
  static std::unique_ptr<ZipEntryReader> open(unzFile zip, const std::filesystem::path& archive,
                                              const unz_file_info64& info);

  bool decrypts() const override { return false; }

 private:
  ArchiveFileEntryReader(const unz_file_info64& info, UniqueFileDescriptor archive, std::uint64_t dataOffset,
                         std::uint64_t dataSize);
  long decryptedBytes(std::uint8_t* buffer, std::size_t size) override;

  UniqueFileDescriptor archive_;
  std::uint64_t dataOffset_;
  std::uint64_t dataSize_;
  std::uint64_t position_ = 0;
};

}  // namespace zrv::zip
