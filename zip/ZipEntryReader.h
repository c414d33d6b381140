#pragma once
// The contents of one open entry: through minizip's own reader, or decrypted here where minizip cannot decrypt
// (Debian builds it without decryption, and no minizip 1.x knows WinZip's AES).

#include <unzip.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace zrv::zip {

class ZipEntryReader {
 public:
  virtual ~ZipEntryReader() = default;

  /// Opens minizip's current entry, described by `info` (with its Zip64 values applied): with
  /// `unzOpenCurrentFilePassword` when a non-empty password is given, else `unzOpenCurrentFile`; an encrypted
  /// entry that minizip cannot open is decrypted here, and an entry with Zip64 fields (`hasZip64Fields`) is read
  /// here from the archive file. None when the entry cannot be opened, which includes a wrong password and
  /// encrypted data that does not authenticate.
  static std::unique_ptr<ZipEntryReader> open(unzFile zip, const std::filesystem::path& archive,
                                              const std::optional<std::string>& password,
                                              const unz_file_info64& info, bool hasZip64Fields);

  /// Up to `size` bytes of the contents: their count, 0 at the end, negative when the data cannot be read or
  /// fails its checks.
  virtual int read(char* buffer, unsigned size) = 0;
  /// Closes the entry; false when the data was read to its end and its checksum does not match.
  virtual bool close() = 0;
  /// Whether the contents were decrypted here: what a failed read has written holds no trustworthy data.
  virtual bool decrypts() const { return false; }
};

}  // namespace zrv::zip
