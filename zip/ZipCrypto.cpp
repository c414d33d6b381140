#include "zip/ZipCrypto.h"

#include <zlib.h>

namespace zrv::zip {

namespace {

std::uint32_t crc32Byte(std::uint32_t crc, std::uint8_t byte) {
  static const z_crc_t* const table = get_crc_table();
  return table[(crc ^ byte) & 0xff] ^ (crc >> 8);
}

}  // namespace

ZipCrypto::ZipCrypto(std::string_view password) : keys_{0x12345678, 0x23456789, 0x34567890} {
  for (char c : password) update(static_cast<std::uint8_t>(c));
}

bool ZipCrypto::acceptHeader(std::uint8_t header[kHeaderSize], std::uint8_t checkByte) {
  decrypt(header, kHeaderSize);
  return header[kHeaderSize - 1] == checkByte;
}

void ZipCrypto::decrypt(std::uint8_t* data, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) {
    data[i] ^= streamByte();
    update(data[i]);
  }
}

std::uint8_t ZipCrypto::checkByte(std::uint32_t crc, unsigned long dosDate, bool hasDataDescriptor) {
  // Writers that stream an entry do not know its CRC when they write the header; they use the time instead.
  return hasDataDescriptor ? static_cast<std::uint8_t>((dosDate >> 8) & 0xff) : static_cast<std::uint8_t>(crc >> 24);
}

void ZipCrypto::update(std::uint8_t plain) {
  keys_[0] = crc32Byte(keys_[0], plain);
  keys_[1] = (keys_[1] + (keys_[0] & 0xff)) * 134775813u + 1;
  keys_[2] = crc32Byte(keys_[2], static_cast<std::uint8_t>(keys_[1] >> 24));
}

std::uint8_t ZipCrypto::streamByte() const {
  const std::uint32_t temp = (keys_[2] | 2) & 0xffff;
  return static_cast<std::uint8_t>((temp * (temp ^ 1)) >> 8);
}

}  // namespace zrv::zip
