#include "PatchMaker.h"

#include <bzlib.h>
#include <divsufsort.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <vector>

namespace {

using Index = std::int64_t;

void appendOfftout(ZRVData& out, Index value) {
  std::uint64_t magnitude = value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<std::uint8_t>(magnitude >> (8 * i)));
  if (value < 0) out.back() |= 0x80;
}

ZRVData compress(const ZRVData& input) {
  bz_stream stream{};
  if (BZ2_bzCompressInit(&stream, 9, 0, 0) != BZ_OK) throw std::bad_alloc();
  ZRVData output(input.size() + input.size() / 100 + 600);  // bzip2's documented worst case
  stream.next_in = const_cast<char*>(reinterpret_cast<const char*>(input.data()));
  stream.avail_in = static_cast<unsigned int>(input.size());
  stream.next_out = reinterpret_cast<char*>(output.data());
  stream.avail_out = static_cast<unsigned int>(output.size());
  int result = BZ2_bzCompress(&stream, BZ_FINISH);
  while (result == BZ_FINISH_OK) result = BZ2_bzCompress(&stream, BZ_FINISH);
  output.resize(output.size() - stream.avail_out);
  BZ2_bzCompressEnd(&stream);
  if (result != BZ_STREAM_END) throw std::runtime_error("bzip2 compression failed");
  return output;
}

/// Finds, for each position of the new file, the longest stretch of the old file that matches it, through the
/// old file's suffix array.
class MatchFinder {
 public:
  explicit MatchFinder(const ZRVData& old) : old_(old), suffixes_(old.size()) {
    if (!old.empty() && divsufsort(old.data(), suffixes_.data(), static_cast<saidx_t>(old.size())) != 0) {
      throw std::bad_alloc();
    }
  }

  /// Length of the longest prefix of `target` found in the old file, and where (`position`).
  Index longestMatch(const std::uint8_t* target, Index targetLength, Index& position) const {
    position = 0;
    if (suffixes_.empty()) return 0;
    // The suffixes sharing the longest prefix with `target` sit next to where `target` would sort.
    std::size_t low = 0;
    std::size_t high = suffixes_.size() - 1;
    while (high - low >= 2) {
      std::size_t middle = low + (high - low) / 2;
      Index start = suffixes_[middle];
      Index common = std::min<Index>(static_cast<Index>(old_.size()) - start, targetLength);
      if (std::memcmp(old_.data() + start, target, static_cast<std::size_t>(common)) < 0) {
        low = middle;
      } else {
        high = middle;
      }
    }
    Index lowLength = matchLength(suffixes_[low], target, targetLength);
    Index highLength = matchLength(suffixes_[high], target, targetLength);
    position = lowLength >= highLength ? suffixes_[low] : suffixes_[high];
    return std::max(lowLength, highLength);
  }

 private:
  Index matchLength(Index start, const std::uint8_t* target, Index targetLength) const {
    Index limit = std::min<Index>(static_cast<Index>(old_.size()) - start, targetLength);
    Index length = 0;
    while (length < limit && old_[static_cast<std::size_t>(start + length)] == target[length]) ++length;
    return length;
  }

  const ZRVData& old_;
  std::vector<saidx_t> suffixes_;
};

struct Streams {
  ZRVData control;
  ZRVData diff;
  ZRVData extra;
};

/// The bsdiff 4 scan: looks for matches that beat simply continuing the previous alignment by more than a few
/// bytes, then splits the stretch between two matches into an approximate (diff) part that extends the
/// previous match forward, a part that extends the next match backward, and literal (extra) bytes between.
Streams diffStreams(const ZRVData& oldData, const ZRVData& newData) {
  const std::uint8_t* old = oldData.data();
  const std::uint8_t* now = newData.data();
  const auto oldSize = static_cast<Index>(oldData.size());
  const auto newSize = static_cast<Index>(newData.size());
  MatchFinder finder(oldData);
  Streams streams;
  auto oldMatches = [&](Index oldIndex, Index newIndex) {
    return oldIndex >= 0 && oldIndex < oldSize && old[oldIndex] == now[newIndex];
  };

  Index scan = 0, length = 0, position = 0;
  Index lastScan = 0, lastPosition = 0, lastOffset = 0;
  while (scan < newSize) {
    Index oldScore = 0;
    Index scored = scan += length;
    for (; scan < newSize; ++scan) {
      length = finder.longestMatch(now + scan, newSize - scan, position);
      for (; scored < scan + length; ++scored) {
        if (oldMatches(scored + lastOffset, scored)) ++oldScore;
      }
      if ((length == oldScore && length != 0) || length > oldScore + 8) break;
      if (oldMatches(scan + lastOffset, scan)) --oldScore;
    }
    if (length == oldScore && scan != newSize) continue;

    // Forward extension of the previous match: as long as at least half of the bytes agree.
    Index forward = 0;
    for (Index i = 0, same = 0, best = 0; lastScan + i < scan && lastPosition + i < oldSize;) {
      if (old[lastPosition + i] == now[lastScan + i]) ++same;
      ++i;
      if (same * 2 - i > best * 2 - forward) {
        best = same;
        forward = i;
      }
    }
    // Backward extension of the new match.
    Index backward = 0;
    if (scan < newSize) {
      for (Index i = 1, same = 0, best = 0; scan >= lastScan + i && position >= i; ++i) {
        if (old[position - i] == now[scan - i]) ++same;
        if (same * 2 - i > best * 2 - backward) {
          best = same;
          backward = i;
        }
      }
    }
    // Where the two extensions overlap, split at the point that keeps the most agreeing bytes.
    if (lastScan + forward > scan - backward) {
      Index overlap = (lastScan + forward) - (scan - backward);
      Index split = 0;
      for (Index i = 0, score = 0, best = 0; i < overlap; ++i) {
        if (now[lastScan + forward - overlap + i] == old[lastPosition + forward - overlap + i]) ++score;
        if (now[scan - backward + i] == old[position - backward + i]) --score;
        if (score > best) {
          best = score;
          split = i + 1;
        }
      }
      forward += split - overlap;
      backward -= split;
    }

    for (Index i = 0; i < forward; ++i) {
      streams.diff.push_back(static_cast<std::uint8_t>(now[lastScan + i] - old[lastPosition + i]));
    }
    Index literal = (scan - backward) - (lastScan + forward);
    streams.extra.insert(streams.extra.end(), now + lastScan + forward, now + lastScan + forward + literal);
    appendOfftout(streams.control, forward);
    appendOfftout(streams.control, literal);
    appendOfftout(streams.control, (position - backward) - (lastPosition + forward));

    lastScan = scan - backward;
    lastPosition = position - backward;
    lastOffset = position - scan;
  }
  return streams;
}

}  // namespace

ZRVData makePatch(const ZRVData& oldData, const ZRVData& newData, bool raw) {
  // The suffix sorter indexes with 32 bits and libbz2 counts its input in an unsigned int.
  constexpr auto kLargest = static_cast<std::size_t>(std::numeric_limits<saidx_t>::max());
  if (oldData.size() >= kLargest || newData.size() >= kLargest) {
    throw std::length_error("files of 2 GiB or more cannot be diffed");
  }
  Streams streams = diffStreams(oldData, newData);
  if (!raw) {
    streams.control = compress(streams.control);
    streams.diff = compress(streams.diff);
    streams.extra = compress(streams.extra);
  }
  ZRVData patch(raw ? ZRVData{'B', 'S', 'D', 'I', 'F', 'N', '4', '0'} : ZRVData{'B', 'S', 'D', 'I', 'F', 'F', '4', '0'});
  appendOfftout(patch, static_cast<Index>(streams.control.size()));
  appendOfftout(patch, static_cast<Index>(streams.diff.size()));
  appendOfftout(patch, static_cast<Index>(newData.size()));
  patch.reserve(patch.size() + streams.control.size() + streams.diff.size() + streams.extra.size());
  for (const ZRVData* stream : {&streams.control, &streams.diff, &streams.extra}) {
    patch.insert(patch.end(), stream->begin(), stream->end());
  }
  return patch;
}
