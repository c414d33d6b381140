#include "BZip2InverseTransform.h"

#include <algorithm>
#include <cstring>

namespace zrv::bzip2::BZip2InverseTransform {

namespace {

// Enough walks to keep the processor's outstanding misses busy; more only add pieces to put in order.
constexpr unsigned kWalks = 16;
constexpr std::size_t kPageLength = 4096;
constexpr std::uint32_t kNoPage = UINT32_MAX;

// Every walk wastes at most the rest of its last page.
std::size_t pagesFor(std::size_t length) { return length / kPageLength + kWalks + 1; }

struct Piece {
  std::uint32_t start = 0;
  std::uint32_t next = 0;  ///< the start the walk ran into
  std::uint32_t length = 0;
  std::uint32_t firstPage = 0;
};

struct Walk {
  std::uint32_t at;
  std::uint8_t* out;
  std::size_t room;
  std::uint32_t page;
  std::uint32_t length;
  unsigned piece;
};

}  // namespace

void Workspace::reserve(std::size_t length) {
  if (capacity_ >= length) return;
  capacity_ = 0;
  starts_.reset(new std::uint64_t[length / 64 + 1]);
  pages_.reset(new std::uint8_t[pagesFor(length) * kPageLength]);
  pageAfter_.reset(new std::uint32_t[pagesFor(length)]);
  capacity_ = length;
}

bool follow(const std::uint32_t* links, std::uint32_t count, std::uint32_t first, std::uint8_t* out,
            Workspace& workspace) {
  if (count == 0 || count > workspace.capacity_ || first >= count) return false;
  std::uint64_t* const starts = workspace.starts_.get();
  std::uint8_t* const pages = workspace.pages_.get();
  std::uint32_t* const pageAfter = workspace.pageAfter_.get();
  const std::size_t pageCount = pagesFor(count);
  std::fill(starts, starts + count / 64 + 1, 0);
  auto isStart = [starts](std::uint32_t link) { return (starts[link >> 6] >> (link & 63)) & 1; };

  Piece pieces[kWalks];
  Walk walks[kWalks];
  unsigned pieceCount = 0, active = 0;
  std::uint32_t freePage = 0;
  for (unsigned i = 0; i < kWalks; ++i) {
    const auto start = i == 0 ? first : static_cast<std::uint32_t>(std::uint64_t{count} * i / kWalks);
    if (isStart(start)) continue;
    starts[start >> 6] |= std::uint64_t{1} << (start & 63);
    pageAfter[freePage] = kNoPage;
    pieces[pieceCount] = {start, 0, 0, freePage};
    walks[active++] = {start, pages + freePage * kPageLength, kPageLength, freePage, 0, pieceCount};
    ++pieceCount;
    ++freePage;
  }

  // A step of every walk in turn, so that their misses overlap. Links that do not form one cycle can send a
  // walk round a loop without a start; the pages running out ends that.
  while (active > 0) {
    for (unsigned i = 0; i < active;) {
      Walk& walk = walks[i];
      const std::uint32_t link = links[walk.at];
      *walk.out++ = static_cast<std::uint8_t>(link);
      ++walk.length;
      walk.at = link >> 8;
      if (--walk.room == 0) {
        if (freePage == pageCount) return false;
        pageAfter[walk.page] = freePage;
        pageAfter[freePage] = kNoPage;
        walk.page = freePage++;
        walk.out = pages + std::size_t{walk.page} * kPageLength;
        walk.room = kPageLength;
      }
      if (walk.at >= count) return false;
      if (isStart(walk.at)) {
        pieces[walk.piece].next = walk.at;
        pieces[walk.piece].length = walk.length;
        walks[i] = walks[--active];
      } else {
        ++i;
      }
    }
  }

  // The pieces in the order of the cycle through `first`.
  std::uint64_t placed = 0;
  std::uint32_t at = first;
  for (unsigned visited = 0; visited < pieceCount; ++visited) {
    const Piece* piece = std::find_if(pieces, pieces + pieceCount, [at](const Piece& p) { return p.start == at; });
    if (piece == pieces + pieceCount || placed + piece->length > count) return false;
    std::uint32_t page = piece->firstPage;
    for (std::size_t left = piece->length; left > 0; page = pageAfter[page]) {
      const std::size_t take = std::min(left, kPageLength);
      std::memcpy(out + placed, pages + std::size_t{page} * kPageLength, take);
      placed += take;
      left -= take;
    }
    at = piece->next;
    if (at == first) break;
  }
  if (at != first || placed == 0) return false;
  // Links that form more than one cycle: following them one by one goes round the first cycle again.
  for (std::size_t done = placed; done < count;) {
    const std::size_t take = std::min<std::size_t>(done, count - done);
    std::memcpy(out + done, out, take);
    done += take;
  }
  return true;
}

}  // namespace zrv::bzip2::BZip2InverseTransform
