#include "zip/DecryptingEntryReader.h"

#include "zip/WinZipAES.h"
#include "zip/ZipCrypto.h"
#include "zip/ZipDestination.h"
#include "zip/ZipEntryData.h"

#include <fcntl.h>

#include <algorithm>
#include <climits>

namespace zrv::zip {

namespace {

constexpr std::size_t kChunkSize = 16384;
constexpr uLong kDataDescriptor = 8;
constexpr uLong kStrongEncryption = 0x40;

// ZipCrypto: the 12-byte encryption header, then the encrypted stored data, read raw through minizip.
class ZipCryptoEntryReader final : public DecryptingEntryReader {
 public:
  ZipCryptoEntryReader(unzFile zip, int method, const unz_file_info64& info, const std::string& password)
      : DecryptingEntryReader(method, info.uncompressed_size, static_cast<std::uint32_t>(info.crc)), zip_(zip),
        crypto_(password) {}
  ~ZipCryptoEntryReader() override { closeEntry(); }

  bool acceptHeader(const unz_file_info64& info) {
    std::uint8_t header[ZipCrypto::kHeaderSize];
    std::size_t have = 0;
    while (have < sizeof header) {
      const int count = unzReadCurrentFile(zip_, header + have, static_cast<unsigned>(sizeof header - have));
      if (count <= 0) return false;
      have += static_cast<std::size_t>(count);
    }
    return crypto_.acceptHeader(
        header, ZipCrypto::checkByte(static_cast<std::uint32_t>(info.crc), info.dosDate, info.flag & kDataDescriptor));
  }

  bool close() override {
    DecryptingEntryReader::close();
    closeEntry();
    return true;
  }

 private:
  long decryptedBytes(std::uint8_t* buffer, std::size_t size) override {
    const int count = unzReadCurrentFile(zip_, buffer, static_cast<unsigned>(std::min<std::size_t>(size, INT_MAX)));
    if (count > 0) crypto_.decrypt(buffer, static_cast<std::size_t>(count));
    return count;
  }

  void closeEntry() {
    // Opened raw, minizip checks no checksum at closing; the reader has checked it.
    if (open_) unzCloseCurrentFile(zip_);
    open_ = false;
  }

  unzFile zip_;
  ZipCrypto crypto_;
  bool open_ = true;
};

// WinZip AES: salt, password verifier, the encrypted data and its authentication code, read from the archive
// file. The whole entry is authenticated before anything of it is handed out, and again while it is read.
class WinZipAESEntryReader final : public DecryptingEntryReader {
 public:
  WinZipAESEntryReader(const WinZipAES::Parameters& parameters, const unz_file_info64& info,
                       UniqueFileDescriptor archive, std::unique_ptr<WinZipAES> aes, std::uint64_t dataOffset,
                       std::uint64_t dataSize)
      : DecryptingEntryReader(parameters.method, info.uncompressed_size,
                              parameters.version == 1 ? std::optional<std::uint32_t>(static_cast<std::uint32_t>(info.crc))
                                                      : std::nullopt),
        archive_(std::move(archive)), aes_(std::move(aes)), dataOffset_(dataOffset), dataSize_(dataSize) {}

  bool authenticateWhole() {
    std::vector<std::uint8_t> chunk(kChunkSize);
    for (std::uint64_t at = 0; at < dataSize_;) {
      const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(chunk.size(), dataSize_ - at));
      if (!readAt(archive_.get(), dataOffset_ + at, chunk.data(), count)) return false;
      aes_->authenticate(chunk.data(), count);
      at += count;
    }
    const bool authentic = authenticated();
    aes_->rewind();
    return authentic;
  }

 private:
  long decryptedBytes(std::uint8_t* buffer, std::size_t size) override {
    const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(size, dataSize_ - position_));
    if (count == 0) return 0;
    if (!readAt(archive_.get(), dataOffset_ + position_, buffer, count)) return -1;
    position_ += count;
    aes_->authenticate(buffer, count);
    aes_->decrypt(buffer, count);
    return static_cast<long>(count);
  }

  bool authenticated() override {
    std::uint8_t code[WinZipAES::kAuthenticationCodeSize];
    return readAt(archive_.get(), dataOffset_ + dataSize_, code, sizeof code) && aes_->authenticationCodeMatches(code);
  }

  UniqueFileDescriptor archive_;
  std::unique_ptr<WinZipAES> aes_;
  std::uint64_t dataOffset_;
  std::uint64_t dataSize_;
  std::uint64_t position_ = 0;
};

std::unique_ptr<ZipEntryReader> openZipCrypto(unzFile zip, const unz_file_info64& info, const std::string& password) {
  int method = 0;
  int level = 0;
  if (unzOpenCurrentFile3(zip, &method, &level, 1, nullptr) != UNZ_OK) return nullptr;
  auto reader = std::make_unique<ZipCryptoEntryReader>(zip, method, info, password);
  if (!reader->acceptHeader(info)) return nullptr;
  return reader;
}

std::unique_ptr<ZipEntryReader> openWinZipAES(unzFile zip, const std::filesystem::path& archive,
                                              const unz_file_info64& info, const std::string& password) {
  std::vector<std::uint8_t> extra(info.size_file_extra);
  unz_file_info64 ignored{};
  if (unzGetCurrentFileInfo64(zip, &ignored, nullptr, 0, extra.data(), extra.size(), nullptr, 0) != UNZ_OK) {
    return nullptr;
  }
  const std::optional<WinZipAES::Parameters> parameters =
      WinZipAES::parametersFromExtraField(extra.data(), extra.size());
  if (!parameters || !DecryptingEntryReader::supportsMethod(parameters->method) ||
      info.compressed_size < parameters->overhead()) {
    return nullptr;
  }

  UniqueFileDescriptor file(::open(archive.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return nullptr;
  const std::optional<ZipEntryRange> range = locateCurrentEntryData(zip, file.get(), info.compressed_size);
  if (!range) return nullptr;
  std::uint8_t saltAndVerifier[16 + WinZipAES::kVerifierSize];
  const std::size_t saltSize = parameters->saltSize();
  if (!readAt(file.get(), range->offset, saltAndVerifier, saltSize + WinZipAES::kVerifierSize)) return nullptr;
  std::unique_ptr<WinZipAES> aes = WinZipAES::begin(*parameters, password, saltAndVerifier, saltAndVerifier + saltSize);
  if (!aes) return nullptr;

  const std::uint64_t dataOffset = range->offset + saltSize + WinZipAES::kVerifierSize;
  auto reader = std::make_unique<WinZipAESEntryReader>(*parameters, info, std::move(file), std::move(aes), dataOffset,
                                                       range->size - parameters->overhead());
  if (!reader->authenticateWhole()) return nullptr;
  return reader;
}

}  // namespace

std::unique_ptr<ZipEntryReader> DecryptingEntryReader::open(unzFile zip, const std::filesystem::path& archive,
                                                            const unz_file_info64& info, const std::string& password) {
  if (info.flag & kStrongEncryption) return nullptr;
  if (info.compression_method == WinZipAES::kMethod) return openWinZipAES(zip, archive, info, password);
  if (!supportsMethod(static_cast<int>(info.compression_method))) return nullptr;
  return openZipCrypto(zip, info, password);
}

DecryptingEntryReader::DecryptingEntryReader(int method, std::uint64_t size, std::optional<std::uint32_t> crc)
    : method_(method), expectedSize_(size), expectedCrc_(crc), crc_(crc32(0, nullptr, 0)) {
  if (!supportsMethod(method)) {
    failed_ = true;
  } else if (method == Z_DEFLATED) {
    inflating_ = inflateInit2(&stream_, -MAX_WBITS) == Z_OK;
    failed_ = !inflating_;
  }
  input_.resize(kChunkSize);
}

DecryptingEntryReader::~DecryptingEntryReader() { DecryptingEntryReader::close(); }

bool DecryptingEntryReader::close() {
  if (inflating_) inflateEnd(&stream_);
  inflating_ = false;
  return true;
}

int DecryptingEntryReader::fail() {
  failed_ = true;
  return -1;
}

int DecryptingEntryReader::read(char* buffer, unsigned size) {
  if (failed_ || !(method_ == 0 || inflating_)) return -1;
  if (ended_ || size == 0) return 0;
  auto* out = reinterpret_cast<std::uint8_t*>(buffer);
  std::size_t produced = 0;
  if (method_ == 0) {
    const long count = decryptedBytes(out, size);
    if (count < 0) return fail();
    sourceEnded_ = count == 0;
    produced = static_cast<std::size_t>(count);
    ended_ = sourceEnded_ || size_ + produced >= expectedSize_;
  } else if (!inflateSome(out, size, produced)) {
    return fail();
  }
  size_ += produced;
  if (size_ > expectedSize_) return fail();
  crc_ = crc32(crc_, out, static_cast<uInt>(produced));
  // The last bytes are handed out only once the whole entry has passed its checks.
  if (ended_ && !finish()) return fail();
  return static_cast<int>(produced);
}

bool DecryptingEntryReader::inflateSome(std::uint8_t* buffer, std::size_t size, std::size_t& produced) {
  stream_.next_out = buffer;
  stream_.avail_out = static_cast<uInt>(size);
  while (stream_.avail_out == size && !ended_) {
    if (stream_.avail_in == 0 && !sourceEnded_) {
      const long count = decryptedBytes(input_.data(), input_.size());
      if (count < 0) return false;
      sourceEnded_ = count == 0;
      stream_.next_in = input_.data();
      stream_.avail_in = static_cast<uInt>(count);
    }
    const int result = inflate(&stream_, Z_NO_FLUSH);
    if (result == Z_STREAM_END) {
      ended_ = true;
    } else if (result != Z_OK && result != Z_BUF_ERROR) {
      return false;
    } else if (sourceEnded_ && stream_.avail_in == 0 && stream_.avail_out == size) {
      return false;  // the stored data ends inside the deflate stream
    }
  }
  produced = size - stream_.avail_out;
  return true;
}

bool DecryptingEntryReader::finish() {
  // Bytes behind the end of a deflate stream still count for the authentication code; behind stored contents
  // there must be none.
  while (!sourceEnded_) {
    const long count = decryptedBytes(input_.data(), input_.size());
    if (count < 0 || (count > 0 && method_ == 0)) return false;
    sourceEnded_ = count == 0;
  }
  if (size_ != expectedSize_) return false;
  if (expectedCrc_ && crc_ != *expectedCrc_) return false;
  return authenticated();
}

}  // namespace zrv::zip
