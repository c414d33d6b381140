// Decompressing a bzip2 stream straight into a file, for downloaded patches and whole game files.

#include "BZip2BlockPipeline.h"
#include "BZip2Decompression.h"

#include <ZRVKit/ZRVExtensions.h>

#include <bzlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <new>

#include <unistd.h>

namespace zrv::bzip2 {

namespace {

constexpr std::string_view kBZip2Domain = "BZip2";
constexpr std::size_t kChunkLength = 16384;
constexpr std::size_t kLargestPass = std::size_t{1} << 30;  // libbz2 counts input in an unsigned int

void report(std::optional<ZRVError>* error, long code) {
  if (error) *error = ZRVError(std::string(kBZip2Domain), code);
}

/// Calls the caller's release of its mapped input every few MiB of output, so that a large input read through
/// a mapping does not stay in memory.
class InputRelease {
 public:
  explicit InputRelease(const std::function<void()>& release) : release_(release) {}
  void after(std::uint64_t produced) {
    since_ += produced;
    if (since_ < kInterval || !release_) return;
    release_();
    since_ = 0;
  }

 private:
  static constexpr std::uint64_t kInterval = std::uint64_t{16} << 20;
  const std::function<void()>& release_;
  std::uint64_t since_ = 0;
};

enum class ParallelOutcome { decoded, writeFailed, tooLarge, gaveUp };

/// Writes the blocks the pipeline decodes, in order, until the stream ends or the pipeline gives up;
/// `written` counts the bytes handed to the file.
ParallelOutcome writeBlocks(const std::uint8_t* data, std::size_t size, std::FILE* file, std::uint64_t maxBytes,
                            std::uint64_t& written, InputRelease& release) try {
  BZip2BlockPipeline pipeline(data, size);
  std::vector<BZip2BlockPipeline::Chunk> chunks;
  for (;;) {
    switch (pipeline.next(chunks)) {
      case BZip2BlockPipeline::Next::end:
        return ParallelOutcome::decoded;
      case BZip2BlockPipeline::Next::failure:
        return ParallelOutcome::gaveUp;
      case BZip2BlockPipeline::Next::block:
        for (const BZip2BlockPipeline::Chunk& chunk : chunks) {
          if (chunk.length > maxBytes - written) return ParallelOutcome::tooLarge;
          if (std::fwrite(chunk.bytes.get(), 1, chunk.length, file) == static_cast<std::size_t>(-1)) {
            return ParallelOutcome::writeFailed;
          }
          written += chunk.length;
          release.after(chunk.length);
        }
        break;
    }
  }
} catch (const std::bad_alloc&) {
  return ParallelOutcome::gaveUp;  // the sequential decoder needs far less memory
}

/// Decompresses `data` into `file` (closed on every path, like the stream) with at most `maxBytes` of output.
bool decompressInto(bz_stream& stream, std::FILE* file, const std::uint8_t* data, std::size_t size,
                    std::uint64_t maxBytes, std::optional<ZRVError>* error, const std::function<void()>& releaseInput) {
  InputRelease release(releaseInput);
  // Large streams are decoded block by block in parallel. Should that give up (damage, or a block magic that
  // turned up inside compressed data), the sequential decoder below takes over from the start; it defines the
  // result. It decodes the blocks already written identically and writes only what comes after them, and
  // where it stops short of them (it drops the bytes of the pass that meets damage) the file is cut back.
  std::uint64_t parallelWritten = 0;
  if (BZip2BlockPipeline::worthwhile(size)) {
    switch (writeBlocks(data, size, file, maxBytes, parallelWritten, release)) {
      case ParallelOutcome::decoded:
        std::fclose(file);
        BZ2_bzDecompressEnd(&stream);
        return true;
      case ParallelOutcome::tooLarge:
        std::fclose(file);
        BZ2_bzDecompressEnd(&stream);
        report(error, EFBIG);
        return false;
      case ParallelOutcome::writeFailed: {
        int writeError = errno;
        std::fclose(file);
        BZ2_bzDecompressEnd(&stream);
        report(error, writeError);
        return false;
      }
      case ParallelOutcome::gaveUp:
        break;
    }
  }

  const std::uint8_t* pending = data;
  std::size_t pendingLength = size;
  char chunk[kChunkLength];
  std::uint64_t position = 0;  // bytes written so far by this loop, or found already written
  for (;;) {
    if (stream.avail_in == 0 && pendingLength > 0) {
      std::size_t pass = std::min(pendingLength, kLargestPass);
      stream.next_in = const_cast<char*>(reinterpret_cast<const char*>(pending));
      stream.avail_in = static_cast<unsigned int>(pass);
      pending += pass;
      pendingLength -= pass;
    }
    stream.next_out = chunk;
    stream.avail_out = kChunkLength;
    int result = BZ2_bzDecompress(&stream);
    std::size_t produced = kChunkLength - stream.avail_out;
    // A stream cut off before its end-of-stream mark keeps answering BZ_OK without progress; it is damaged
    // input like the error codes below.
    bool starved = result == BZ_OK && produced == 0 && stream.avail_in == 0 && pendingLength == 0;
    if ((result != BZ_OK && result != BZ_STREAM_END) || starved) {
      // Damaged or non-bzip2 input leaves what was written so far, possibly nothing, and still counts as
      // success: the callers compare the file's SHA-1 with the manifest, and that is what rejects it.
      if (position < parallelWritten) {
        std::fflush(file);
        if (ftruncate(fileno(file), static_cast<off_t>(position)) != 0) {
          // Left longer than it should be; the digest comparison rejects it all the same.
        }
      }
      std::fclose(file);
      BZ2_bzDecompressEnd(&stream);
      return true;
    }
    // Only an outright failure of fwrite is reported; a short count is left to the callers' digests too.
    const std::size_t alreadyWritten =
        position < parallelWritten ? static_cast<std::size_t>(std::min<std::uint64_t>(parallelWritten - position, produced)) : 0;
    position += produced;
    if (position > maxBytes) {  // a file no game has: a bomb, and no reason to fill the disk with it
      std::fclose(file);
      BZ2_bzDecompressEnd(&stream);
      report(error, EFBIG);
      return false;
    }
    if (std::fwrite(chunk + alreadyWritten, 1, produced - alreadyWritten, file) == static_cast<std::size_t>(-1)) {
      int writeError = errno;
      std::fclose(file);
      BZ2_bzDecompressEnd(&stream);
      report(error, writeError);
      return false;
    }
    release.after(produced);
    if (result == BZ_STREAM_END) {
      std::fclose(file);
      BZ2_bzDecompressEnd(&stream);
      return true;
    }
  }
}

}  // namespace

}  // namespace zrv::bzip2

namespace ZRVExtensions {

bool decompressBZIP2CompressedDataToURL(const ZRVData& data, const std::filesystem::path& destination,
                                        std::optional<ZRVError>* error) {
  if (error) *error = std::nullopt;

  bz_stream stream{};
  if (int result = BZ2_bzDecompressInit(&stream, 0, 0); result != BZ_OK) {
    zrv::bzip2::report(error, result);
    return false;
  }
  std::FILE* file = std::fopen(destination.c_str(), "w");
  if (!file) {
    int openError = errno;
    BZ2_bzDecompressEnd(&stream);
    zrv::bzip2::report(error, openError);
    return false;
  }
  return zrv::bzip2::decompressInto(stream, file, data.data(), data.size(), zrv::bzip2::kMaxDecompressedFileSize, error, {});
}

}  // namespace ZRVExtensions

namespace zrv::bzip2 {

bool decompressBZIP2ToDescriptor(const ZRVData& data, int fd, std::uint64_t maxBytes, std::optional<ZRVError>* error) {
  return decompressBZIP2ToDescriptor(data.data(), data.size(), fd, maxBytes, error, {});
}

bool decompressBZIP2ToDescriptor(const std::uint8_t* data, std::size_t size, int fd, std::uint64_t maxBytes,
                                 std::optional<ZRVError>* error, const std::function<void()>& releaseInput) {
  if (error) *error = std::nullopt;
  bz_stream stream{};
  if (int result = BZ2_bzDecompressInit(&stream, 0, 0); result != BZ_OK) {
    report(error, result);
    return false;
  }
  int own = ::dup(fd);
  std::FILE* file = own < 0 ? nullptr : ::fdopen(own, "w");
  if (!file) {
    int openError = errno;
    if (own >= 0) ::close(own);
    BZ2_bzDecompressEnd(&stream);
    report(error, openError);
    return false;
  }
  return decompressInto(stream, file, data, size, maxBytes, error, releaseInput);
}

}  // namespace zrv::bzip2
