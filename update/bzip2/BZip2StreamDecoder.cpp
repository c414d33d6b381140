#include "BZip2StreamDecoder.h"

#include "BZip2Blocks.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

namespace zrv::bzip2 {

namespace {
constexpr std::size_t kLargestPass = std::size_t{1} << 30;  // well within libbz2's unsigned int counters
}

BZip2StreamDecoder::BZip2StreamDecoder(const std::uint8_t* input, std::size_t length)
    : input_(input), length_(length) {}

BZip2StreamDecoder::~BZip2StreamDecoder() {
  if (initialised_) BZ2_bzDecompressEnd(&stream_);
}

std::size_t BZip2StreamDecoder::read(std::uint8_t* out, std::size_t capacity) {
  std::size_t produced = 0;
  while (produced < capacity && state_ == State::decoding) {
    if (!own_) {
      produced += readWithLibbz2(out + produced, capacity - produced);
      break;
    }
    if (!inBlock_) {
      if (!advance()) fallBack();
      continue;
    }
    const std::size_t made = expansion_.expand(out + produced, capacity - produced);
    produced += made;
    delivered_ += made;
    if (expansion_.finished()) {
      if (expansion_.crc() != blockCRC_) {
        fallBack();
        continue;
      }
      combinedCRC_ = BZip2Blocks::combineCRC(combinedCRC_, blockCRC_);
      inBlock_ = false;
    } else if (expansion_.malformed()) {
      fallBack();
    }
  }
  return produced;
}

bool BZip2StreamDecoder::advance() {
  using namespace BZip2Blocks;
  if (nextBit_ == 0) {
    if (length_ < 4 || std::memcmp(input_, "BZh", 3) != 0 || input_[3] < '1' || input_[3] > '9') return false;
    levelDigit_ = input_[3];
    nextBit_ = kHeaderBits;
  }
  const std::uint64_t bits = std::uint64_t{length_} * 8;
  if (nextBit_ + kMagicBits + kCRCBits > bits) return false;
  const std::uint64_t magic = bitsAt(input_, length_, nextBit_, kMagicBits);
  if (magic == kEndMagic) {
    if (bitsAt(input_, length_, nextBit_ + kMagicBits, kCRCBits) != combinedCRC_) return false;
    state_ = State::finished;
    blockBytes_ = {};
    return true;
  }
  if (magic != kBlockMagic) return false;
  const auto end = findMagic(input_, length_, nextBit_ + kMagicBits);
  if (!end) return false;
  try {
    if (BZip2BlockDecoder::decodeRunLengthBytes(input_, length_, nextBit_, end->bit, levelDigit_, blockBytes_,
                                                blockCRC_) != BZip2BlockDecoder::Result::decoded) {
      return false;
    }
  } catch (const std::bad_alloc&) {
    return false;
  }
  expansion_.start(blockBytes_.data(), blockBytes_.size());
  inBlock_ = true;
  nextBit_ = end->bit;
  return true;
}

void BZip2StreamDecoder::fallBack() {
  own_ = false;
  inBlock_ = false;
  blockBytes_ = {};
  toSkip_ = delivered_;
  pending_ = input_;
  pendingLength_ = length_;
  initialised_ = BZ2_bzDecompressInit(&stream_, 0, 0) == BZ_OK;
  if (!initialised_) state_ = State::failed;
}

std::size_t BZip2StreamDecoder::readWithLibbz2(std::uint8_t* out, std::size_t capacity) {
  // What was handed out before libbz2 took over is made again and dropped, a piece at a time.
  std::vector<std::uint8_t> skipped;
  std::size_t produced = 0;
  while (produced < capacity && state_ == State::decoding) {
    if (stream_.avail_in == 0 && pendingLength_ > 0) {
      std::size_t pass = std::min(pendingLength_, kLargestPass);
      stream_.next_in = const_cast<char*>(reinterpret_cast<const char*>(pending_));
      stream_.avail_in = static_cast<unsigned int>(pass);
      pending_ += pass;
      pendingLength_ -= pass;
    }
    std::uint8_t* into = out + produced;
    std::size_t room = std::min(capacity - produced, kLargestPass);
    if (toSkip_ > 0) {
      if (skipped.empty()) skipped.resize(64 * 1024);
      into = skipped.data();
      room = static_cast<std::size_t>(std::min<std::uint64_t>(toSkip_, skipped.size()));
    }
    stream_.next_out = reinterpret_cast<char*>(into);
    stream_.avail_out = static_cast<unsigned int>(room);
    int result = BZ2_bzDecompress(&stream_);
    std::size_t made = room - stream_.avail_out;
    if (toSkip_ > 0) {
      toSkip_ -= made;
    } else {
      produced += made;
    }
    if (result == BZ_STREAM_END) {
      state_ = State::finished;
    } else if (result != BZ_OK) {
      state_ = State::failed;
    } else if (made == 0 && stream_.avail_in == 0 && pendingLength_ == 0) {
      // A stream cut off before its end-of-stream mark: libbz2 keeps answering BZ_OK without making progress,
      // so waiting for BZ_STREAM_END would never end. It is a damaged stream like any other.
      state_ = State::failed;
    }
  }
  delivered_ += produced;
  return produced;
}

}  // namespace zrv::bzip2
