#include "BZip2CRC.h"

#include <cstring>

namespace zrv::bzip2::BZip2CRC {

namespace {

constexpr std::uint32_t kPolynomial = 0x04C11DB7u;
constexpr unsigned kRunSteps = 8;  ///< runs are taken 2^0 .. 2^7 bytes at a time

/// The CRC is linear: after n more bytes it is the old CRC carried over n zero bytes, XOR the CRC of those
/// bytes started from zero. Both parts are tabled for n a power of two.
struct Tables {
  std::uint32_t bytes[8][256];  ///< [k][b]: b followed by k zero bytes, from zero (slicing by 8)
  std::uint32_t zeros[kRunSteps][4][256];  ///< [j][i][v]: a CRC of v in its byte i (from the top), over 2^j zeros
  std::uint32_t runs[256][kRunSteps];      ///< [b][j]: 2^j copies of b, from zero

  Tables() {
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
      std::uint32_t crc = byte << 24;
      for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x80000000u) ? (crc << 1) ^ kPolynomial : crc << 1;
      bytes[0][byte] = crc;
    }
    for (unsigned k = 1; k < 8; ++k) {
      for (unsigned byte = 0; byte < 256; ++byte) {
        bytes[k][byte] = (bytes[k - 1][byte] << 8) ^ bytes[0][bytes[k - 1][byte] >> 24];
      }
    }
    for (unsigned i = 0; i < 4; ++i) {
      for (std::uint32_t value = 0; value < 256; ++value) {
        const std::uint32_t crc = value << (24 - 8 * i);
        zeros[0][i][value] = (crc << 8) ^ bytes[0][crc >> 24];
      }
    }
    for (unsigned j = 1; j < kRunSteps; ++j) {
      for (unsigned i = 0; i < 4; ++i) {
        for (std::uint32_t value = 0; value < 256; ++value) {
          zeros[j][i][value] = overZeros(j - 1, overZeros(j - 1, value << (24 - 8 * i)));
        }
      }
    }
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
      runs[byte][0] = bytes[0][byte];
      for (unsigned j = 1; j < kRunSteps; ++j) runs[byte][j] = overZeros(j - 1, runs[byte][j - 1]) ^ runs[byte][j - 1];
    }
  }

  /// `crc` carried over 2^j zero bytes.
  std::uint32_t overZeros(unsigned j, std::uint32_t crc) const {
    return zeros[j][0][crc >> 24] ^ zeros[j][1][(crc >> 16) & 0xFF] ^ zeros[j][2][(crc >> 8) & 0xFF] ^
           zeros[j][3][crc & 0xFF];
  }
};

const Tables& tables() {
  static const Tables instance;
  return instance;
}

std::uint32_t bigEndian32(const std::uint8_t* bytes) {
  std::uint32_t word;
  std::memcpy(&word, bytes, 4);
  return __builtin_bswap32(word);
}

}  // namespace

std::uint32_t update(std::uint32_t crc, const std::uint8_t* bytes, std::size_t length) {
  const auto& table = tables().bytes;
  for (; length >= 8; bytes += 8, length -= 8) {
    const std::uint32_t high = crc ^ bigEndian32(bytes);
    const std::uint32_t low = bigEndian32(bytes + 4);
    crc = table[7][high >> 24] ^ table[6][(high >> 16) & 0xFF] ^ table[5][(high >> 8) & 0xFF] ^
          table[4][high & 0xFF] ^ table[3][low >> 24] ^ table[2][(low >> 16) & 0xFF] ^
          table[1][(low >> 8) & 0xFF] ^ table[0][low & 0xFF];
  }
  for (; length > 0; ++bytes, --length) crc = (crc << 8) ^ table[0][(crc >> 24) ^ *bytes];
  return crc;
}

std::uint32_t updateRun(std::uint32_t crc, std::uint8_t byte, std::size_t count) {
  const Tables& table = tables();
  constexpr std::size_t kLargestStep = std::size_t{1} << (kRunSteps - 1);
  for (; count >= 2 * kLargestStep; count -= kLargestStep) {
    crc = table.overZeros(kRunSteps - 1, crc) ^ table.runs[byte][kRunSteps - 1];
  }
  for (unsigned j = 0; count != 0; ++j, count >>= 1) {
    if (count & 1) crc = table.overZeros(j, crc) ^ table.runs[byte][j];
  }
  return crc;
}

}  // namespace zrv::bzip2::BZip2CRC
