#include "zip/WinZipAES.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <algorithm>

namespace zrv::zip {

namespace {

constexpr int kIterations = 1000;
constexpr std::size_t kBlockSize = 16;

std::uint16_t little16(const std::uint8_t* bytes) { return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8); }

const EVP_CIPHER* cipherOfStrength(int strength) {
  switch (strength) {
    case 1: return EVP_aes_128_ecb();
    case 2: return EVP_aes_192_ecb();
    case 3: return EVP_aes_256_ecb();
    default: return nullptr;
  }
}

}  // namespace

void WinZipAES::CipherDeleter::operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
void WinZipAES::MacDeleter::operator()(EVP_MAC_CTX* context) const { EVP_MAC_CTX_free(context); }

std::optional<WinZipAES::Parameters> WinZipAES::parametersFromExtraField(const std::uint8_t* extra,
                                                                         std::size_t size) {
  for (std::size_t at = 0; at + 4 <= size;) {
    const std::uint16_t id = little16(extra + at);
    const std::size_t length = little16(extra + at + 2);
    if (at + 4 + length > size) return std::nullopt;
    const std::uint8_t* data = extra + at + 4;
    if (id == 0x9901) {
      if (length < 7 || data[2] != 'A' || data[3] != 'E') return std::nullopt;
      Parameters parameters{little16(data), data[4], little16(data + 5)};
      if ((parameters.version != 1 && parameters.version != 2) || !cipherOfStrength(parameters.strength)) {
        return std::nullopt;
      }
      return parameters;
    }
    at += 4 + length;
  }
  return std::nullopt;
}

std::unique_ptr<WinZipAES> WinZipAES::begin(const Parameters& parameters, std::string_view password,
                                            const std::uint8_t* salt, const std::uint8_t verifier[kVerifierSize]) {
  const EVP_CIPHER* cipher = cipherOfStrength(parameters.strength);
  if (!cipher) return nullptr;
  const std::size_t keySize = static_cast<std::size_t>(EVP_CIPHER_get_key_length(cipher));
  // Encryption key, authentication key (as long as the encryption key) and the password verifier.
  std::array<std::uint8_t, 32 + 32 + kVerifierSize> derived{};
  const std::size_t derivedSize = 2 * keySize + kVerifierSize;
  std::unique_ptr<WinZipAES> aes(new WinZipAES());
  bool ok = PKCS5_PBKDF2_HMAC_SHA1(password.data(), static_cast<int>(password.size()), salt,
                                   static_cast<int>(parameters.saltSize()), kIterations,
                                   static_cast<int>(derivedSize), derived.data()) == 1 &&
            CRYPTO_memcmp(derived.data() + 2 * keySize, verifier, kVerifierSize) == 0;
  if (ok) {
    aes->cipher_.reset(EVP_CIPHER_CTX_new());
    ok = aes->cipher_ && EVP_EncryptInit_ex(aes->cipher_.get(), cipher, nullptr, derived.data(), nullptr) == 1 &&
         EVP_CIPHER_CTX_set_padding(aes->cipher_.get(), 0) == 1;
  }
  if (ok) {
    std::copy_n(derived.data() + keySize, keySize, aes->macKey_.data());
    EVP_MAC* hmac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    aes->mac_.reset(hmac ? EVP_MAC_CTX_new(hmac) : nullptr);
    EVP_MAC_free(hmac);
    ok = aes->mac_ != nullptr;
  }
  OPENSSL_cleanse(derived.data(), derived.size());
  if (!ok) return nullptr;
  aes->rewind();
  return aes;
}

WinZipAES::~WinZipAES() { OPENSSL_cleanse(macKey_.data(), macKey_.size()); }

void WinZipAES::rewind() {
  counter_ = 0;
  keystreamUsed_ = keystreamSize_ = 0;
  char digest[] = "SHA1";
  const OSSL_PARAM parameters[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                                   OSSL_PARAM_construct_end()};
  // The key length equals the AES key length: 16, 24 or 32 bytes.
  const int keySize = EVP_CIPHER_CTX_get_key_length(cipher_.get());
  if (EVP_MAC_init(mac_.get(), macKey_.data(), static_cast<std::size_t>(keySize), parameters) != 1) broken_ = true;
}

void WinZipAES::authenticate(const std::uint8_t* data, std::size_t size) {
  if (size > 0 && EVP_MAC_update(mac_.get(), data, size) != 1) broken_ = true;
}

void WinZipAES::decrypt(std::uint8_t* data, std::size_t size) {
  while (size > 0) {
    if (keystreamUsed_ == keystreamSize_) refillKeystream();
    const std::size_t count = std::min(size, keystreamSize_ - keystreamUsed_);
    const std::uint8_t* key = keystream_.data() + keystreamUsed_;
    for (std::size_t i = 0; i < count; ++i) data[i] ^= key[i];
    data += count;
    size -= count;
    keystreamUsed_ += count;
  }
}

bool WinZipAES::authenticationCodeMatches(const std::uint8_t code[kAuthenticationCodeSize]) {
  std::uint8_t full[EVP_MAX_MD_SIZE];
  std::size_t size = 0;
  if (broken_ || EVP_MAC_final(mac_.get(), full, &size, sizeof full) != 1 || size < kAuthenticationCodeSize) {
    return false;
  }
  return CRYPTO_memcmp(full, code, kAuthenticationCodeSize) == 0;
}

void WinZipAES::refillKeystream() {
  // The counter is a little-endian number in the block, starting at 1.
  std::array<std::uint8_t, sizeof keystream_> counters{};
  for (std::size_t block = 0; block < keystream_.size() / kBlockSize; ++block) {
    const std::uint64_t value = ++counter_;
    for (std::size_t i = 0; i < 8; ++i) counters[block * kBlockSize + i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
  int produced = 0;
  if (EVP_EncryptUpdate(cipher_.get(), keystream_.data(), &produced, counters.data(),
                        static_cast<int>(counters.size())) != 1 ||
      produced != static_cast<int>(keystream_.size())) {
    // Never hand out plain text that was not really decrypted.
    broken_ = true;
    keystream_.fill(0);
  }
  keystreamUsed_ = 0;
  keystreamSize_ = keystream_.size();
}

}  // namespace zrv::zip
