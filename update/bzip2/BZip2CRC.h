#pragma once
// bzip2's CRC-32 (most significant bit first, polynomial 0x04C11DB7). Start with 0xFFFFFFFF and invert at the
// end. Decoded blocks are largely runs of one byte, so a run's CRC has a way of its own that does not read it.

#include <cstddef>
#include <cstdint>

namespace zrv::bzip2::BZip2CRC {

/// The CRC carried on over `length` more bytes.
std::uint32_t update(std::uint32_t crc, const std::uint8_t* bytes, std::size_t length);

/// The CRC carried on over `count` copies of `byte`, in time that grows with the bits of `count`.
std::uint32_t updateRun(std::uint32_t crc, std::uint8_t byte, std::size_t count);

}  // namespace zrv::bzip2::BZip2CRC
