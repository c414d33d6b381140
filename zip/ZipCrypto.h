#pragma once
// The traditional PKWARE encryption of zip entries (general-purpose flag bit 0, without the strong-encryption bit).

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zrv::zip {

class ZipCrypto {
 public:
  /// Size of the encryption header in front of every encrypted entry's data.
  static constexpr std::size_t kHeaderSize = 12;

  explicit ZipCrypto(std::string_view password);

  /// Decrypts the encryption header and compares its last byte with `checkByte`: the high byte of the CRC-32,
  /// or of the DOS time when the entry's sizes and CRC follow its data in a data descriptor.
  bool acceptHeader(std::uint8_t header[kHeaderSize], std::uint8_t checkByte);

  void decrypt(std::uint8_t* data, std::size_t size);

  /// The byte that a right password reveals at the end of the header of an entry with this CRC and date.
  static std::uint8_t checkByte(std::uint32_t crc, unsigned long dosDate, bool hasDataDescriptor);

 private:
  void update(std::uint8_t plain);
  std::uint8_t streamByte() const;

  std::uint32_t keys_[3];
};

}  // namespace zrv::zip
