#pragma once
// An encrypted entry decrypted here: ZipCrypto over minizip's raw reads, WinZip AES over the entry's bytes in
// the archive file. Both end in the same inflating (or copying) of the decrypted data and the same checks.

#include "zip/ZipEntryReader.h"

#include <zlib.h>

#include <cstdint>
#include <vector>

namespace zrv::zip {

class DecryptingEntryReader : public ZipEntryReader {
 public:
  /// Opens the current (encrypted) entry; none for a wrong password, a damaged or unauthentic entry, or an
  /// encryption or compression method that is not known here.
  static std::unique_ptr<ZipEntryReader> open(unzFile zip, const std::filesystem::path& archive,
                                              const unz_file_info64& info, const std::string& password);

  ~DecryptingEntryReader() override;
  int read(char* buffer, unsigned size) override;
  bool close() override;
  bool decrypts() const override { return true; }

  /// Stored and deflate are the compression methods known here.
  static bool supportsMethod(int method) { return method == 0 || method == Z_DEFLATED; }

 protected:
  /// `crc` is none when the entry does not keep one (AE-2).
  DecryptingEntryReader(int method, std::uint64_t size, std::optional<std::uint32_t> crc);

  /// The next decrypted bytes of the stored data: their count, 0 at its end, negative on a read error.
  virtual long decryptedBytes(std::uint8_t* buffer, std::size_t size) = 0;
  /// Whether the data, read to its end, is authentic.
  virtual bool authenticated() { return true; }

 private:
  int fail();
  bool inflateSome(std::uint8_t* buffer, std::size_t size, std::size_t& produced);
  /// Reads what is left of the stored data and checks size, checksum and authenticity.
  bool finish();

  int method_;
  std::uint64_t expectedSize_;
  std::optional<std::uint32_t> expectedCrc_;
  std::uint64_t size_ = 0;
  uLong crc_ = 0;
  z_stream stream_{};
  bool inflating_ = false;
  std::vector<std::uint8_t> input_;
  bool sourceEnded_ = false;
  bool ended_ = false;
  bool failed_ = false;
};

}  // namespace zrv::zip
