#include "zip/ZipEntryReader.h"

#include "zip/ArchiveFileEntryReader.h"
#include "zip/DecryptingEntryReader.h"

namespace zrv::zip {

namespace {

class MinizipEntryReader : public ZipEntryReader {
 public:
  explicit MinizipEntryReader(unzFile zip) : zip_(zip) {}
  int read(char* buffer, unsigned size) override { return unzReadCurrentFile(zip_, buffer, size); }
  bool close() override { return unzCloseCurrentFile(zip_) != UNZ_CRCERROR; }

 private:
  unzFile zip_;
};

}  // namespace

std::unique_ptr<ZipEntryReader> ZipEntryReader::open(unzFile zip, const std::filesystem::path& archive,
                                                     const std::optional<std::string>& password,
                                                     const unz_file_info64& info, bool hasZip64Fields) {
  constexpr uLong kEncrypted = 1;
  const bool encrypted = info.flag & kEncrypted;
  if (hasZip64Fields && !encrypted) return ArchiveFileEntryReader::open(zip, archive, info);
  const bool withPassword = password && !password->empty();
  const int opened = withPassword ? unzOpenCurrentFilePassword(zip, password->c_str()) : unzOpenCurrentFile(zip);
  if (opened == UNZ_OK) return std::make_unique<MinizipEntryReader>(zip);
  if (!withPassword) return nullptr;
  if (!encrypted) {
    // A minizip without decryption refuses every password, even for the archive's entries in the clear.
    return unzOpenCurrentFile(zip) == UNZ_OK ? std::make_unique<MinizipEntryReader>(zip) : nullptr;
  }
  // The password is NUL-terminated text here as it is for minizip.
  return DecryptingEntryReader::open(zip, archive, info, std::string(password->c_str()));
}

}  // namespace zrv::zip
