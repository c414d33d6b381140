#pragma once
// WinZip's AES encryption of zip entries (compression method 99 with an 0x9901 extra field): keys derived with
// PBKDF2-HMAC-SHA1 from the password and a per-entry salt, AES in counter mode, and an HMAC-SHA1 of the
// encrypted data that authenticates it.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

// OpenSSL's context types, declared as OpenSSL declares them, so that this header needs none of its headers.
typedef struct evp_cipher_ctx_st EVP_CIPHER_CTX;
typedef struct evp_mac_ctx_st EVP_MAC_CTX;

namespace zrv::zip {

class WinZipAES {
 public:
  static constexpr std::uint16_t kMethod = 99;
  static constexpr std::size_t kVerifierSize = 2;
  static constexpr std::size_t kAuthenticationCodeSize = 10;

  /// What the 0x9901 extra field says about an entry.
  struct Parameters {
    int version;   ///< 1 (AE-1: the CRC is kept) or 2 (AE-2: no CRC)
    int strength;  ///< 1, 2, 3 for 128, 192, 256-bit keys
    int method;    ///< the compression method of the data inside
    std::size_t saltSize() const { return 4 + 4 * static_cast<std::size_t>(strength); }
    /// Salt, verifier and authentication code around the encrypted data.
    std::size_t overhead() const { return saltSize() + kVerifierSize + kAuthenticationCodeSize; }
  };

  /// The parameters from an entry's extra fields; none when there is no well-formed 0x9901 field.
  static std::optional<Parameters> parametersFromExtraField(const std::uint8_t* extra, std::size_t size);

  /// Derives the keys; none when the password verifier shows a wrong password (or the parameters are unknown).
  static std::unique_ptr<WinZipAES> begin(const Parameters& parameters, std::string_view password,
                                          const std::uint8_t* salt, const std::uint8_t verifier[kVerifierSize]);
  ~WinZipAES();
  WinZipAES(const WinZipAES&) = delete;
  WinZipAES& operator=(const WinZipAES&) = delete;

  /// Starts over at the beginning of the encrypted data: counter and authentication both restart.
  void rewind();
  /// Feeds encrypted data to the authentication code.
  void authenticate(const std::uint8_t* data, std::size_t size);
  /// Decrypts in place (call after authenticate on the same bytes).
  void decrypt(std::uint8_t* data, std::size_t size);
  /// Whether the data fed since the last rewind carries this code.
  bool authenticationCodeMatches(const std::uint8_t code[kAuthenticationCodeSize]);

 private:
  WinZipAES() = default;
  void refillKeystream();

  struct CipherDeleter {
    void operator()(EVP_CIPHER_CTX* context) const;
  };
  struct MacDeleter {
    void operator()(EVP_MAC_CTX* context) const;
  };
  std::unique_ptr<EVP_CIPHER_CTX, CipherDeleter> cipher_;
  std::unique_ptr<EVP_MAC_CTX, MacDeleter> mac_;
  std::array<std::uint8_t, 32> macKey_{};  ///< as long as the AES key
  std::uint64_t counter_ = 0;  ///< blocks of key stream made so far; the counter of the next block is this + 1
  std::array<std::uint8_t, 16 * 256> keystream_{};
  std::size_t keystreamUsed_ = 0;
  std::size_t keystreamSize_ = 0;
  bool broken_ = false;  ///< a library call failed: nothing authenticates
};

}  // namespace zrv::zip
