#include "BZip2StreamDecoder.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

namespace {
constexpr std::size_t kLargestPass = std::size_t{1} << 30;  // well within libbz2's unsigned int counters
}

BZip2StreamDecoder::BZip2StreamDecoder(const std::uint8_t* input, std::size_t length)
    : input_(input), length_(length) {
  if (BZip2BlockPipeline::worthwhile(length)) {
    try {
      pipeline_ = std::make_unique<BZip2BlockPipeline>(input, length);
    } catch (const std::bad_alloc&) {
    }
  }
  if (!pipeline_) startSequential();
}

BZip2StreamDecoder::~BZip2StreamDecoder() {
  if (initialised_) BZ2_bzDecompressEnd(&stream_);
}

void BZip2StreamDecoder::startSequential() {
  pipeline_.reset();
  chunks_.clear();
  pending_ = input_;
  pendingLength_ = length_;
  skip_ = delivered_;
  initialised_ = BZ2_bzDecompressInit(&stream_, 0, 0) == BZ_OK;
  if (!initialised_) state_ = State::failed;
}

std::size_t BZip2StreamDecoder::read(std::uint8_t* out, std::size_t capacity) {
  std::size_t produced = pipeline_ ? readFromBlocks(out, capacity) : 0;
  if (!pipeline_ && produced < capacity && state_ == State::decoding) {
    produced += readSequentially(out + produced, capacity - produced);
  }
  delivered_ += produced;
  return produced;
}

std::size_t BZip2StreamDecoder::readFromBlocks(std::uint8_t* out, std::size_t capacity) {
  std::size_t produced = 0;
  while (produced < capacity) {
    if (chunkIndex_ < chunks_.size()) {
      const BZip2BlockPipeline::Chunk& chunk = chunks_[chunkIndex_];
      std::size_t taken = std::min(capacity - produced, chunk.length - chunkOffset_);
      std::memcpy(out + produced, chunk.bytes.get() + chunkOffset_, taken);
      produced += taken;
      chunkOffset_ += taken;
      if (chunkOffset_ == chunk.length) {
        chunks_[chunkIndex_++].bytes.reset();  // give a long block's memory back as it is read
        chunkOffset_ = 0;
      }
      continue;
    }
    chunks_.clear();
    chunkIndex_ = 0;
    BZip2BlockPipeline::Next next;
    try {
      next = pipeline_->next(chunks_);
    } catch (const std::bad_alloc&) {
      next = BZip2BlockPipeline::Next::failure;  // the sequential decoder needs far less memory
    }
    switch (next) {
      case BZip2BlockPipeline::Next::block:
        break;
      case BZip2BlockPipeline::Next::end:
        pipeline_.reset();
        state_ = State::finished;
        return produced;
      case BZip2BlockPipeline::Next::failure:
        delivered_ += produced;
        startSequential();
        delivered_ -= produced;
        return produced;
    }
  }
  return produced;
}

std::size_t BZip2StreamDecoder::readSequentially(std::uint8_t* out, std::size_t capacity) {
  std::size_t produced = 0;
  std::uint8_t discard[16384];
  while (produced < capacity && state_ == State::decoding) {
    if (stream_.avail_in == 0 && pendingLength_ > 0) {
      std::size_t pass = std::min(pendingLength_, kLargestPass);
      stream_.next_in = const_cast<char*>(reinterpret_cast<const char*>(pending_));
      stream_.avail_in = static_cast<unsigned int>(pass);
      pending_ += pass;
      pendingLength_ -= pass;
    }
    // Bytes the pipeline delivered before it gave up are decoded again and dropped.
    const bool skipping = skip_ > 0;
    std::uint8_t* into = skipping ? discard : out + produced;
    std::size_t room = skipping ? static_cast<std::size_t>(std::min<std::uint64_t>(skip_, sizeof discard))
                                : std::min(capacity - produced, kLargestPass);
    stream_.next_out = reinterpret_cast<char*>(into);
    stream_.avail_out = static_cast<unsigned int>(room);
    int result = BZ2_bzDecompress(&stream_);
    std::size_t made = room - stream_.avail_out;
    if (skipping) {
      skip_ -= made;
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
  return produced;
}
