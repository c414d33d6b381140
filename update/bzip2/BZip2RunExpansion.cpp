#include "BZip2RunExpansion.h"

#include "BZip2CRC.h"

#include <algorithm>
#include <cstring>

namespace zrv::bzip2 {

void BZip2RunExpansion::start(const std::uint8_t* bytes, std::size_t length) {
  *this = BZip2RunExpansion();
  bytes_ = bytes;
  length_ = length;
  findNextRun();
}

void BZip2RunExpansion::findNextRun() {
  std::size_t at = from_;
  while (at + 3 < length_ &&
         !(bytes_[at] == bytes_[at + 1] && bytes_[at] == bytes_[at + 2] && bytes_[at] == bytes_[at + 3])) {
    ++at;
  }
  if (at + 3 >= length_) {
    literalEnd_ = length_;
    runFollows_ = false;
  } else {
    literalEnd_ = at + 4;
    runFollows_ = true;
  }
}

std::size_t BZip2RunExpansion::expand(std::uint8_t* out, std::size_t capacity) {
  std::size_t produced = 0;
  while (produced < capacity && !malformed_) {
    if (repeatLeft_ > 0) {
      const std::size_t take = std::min<std::size_t>(repeatLeft_, capacity - produced);
      std::memset(out + produced, repeatByte_, take);
      crc_ = BZip2CRC::updateRun(crc_, repeatByte_, take);
      produced += take;
      repeatLeft_ -= take;
    } else if (from_ < literalEnd_) {
      const std::size_t take = std::min(literalEnd_ - from_, capacity - produced);
      std::memcpy(out + produced, bytes_ + from_, take);
      crc_ = BZip2CRC::update(crc_, bytes_ + from_, take);
      produced += take;
      from_ += take;
    } else if (runFollows_) {
      // Four equal bytes were put out; the count of further copies follows, unless the block ends here.
      if (from_ == length_) {
        malformed_ = true;
        break;
      }
      repeatByte_ = bytes_[from_ - 1];
      repeatLeft_ = bytes_[from_];
      ++from_;
      findNextRun();
    } else {
      break;
    }
  }
  return produced;
}

bool BZip2RunExpansion::finished() const { return !malformed_ && repeatLeft_ == 0 && from_ == length_ && !runFollows_; }

}  // namespace zrv::bzip2
