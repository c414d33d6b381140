// Decompressing a bzip2 stream straight into a file, for downloaded patches and whole game files.

#include <ZRVKit/ZRVExtensions.h>

#include <bzlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace {

constexpr std::string_view kBZip2Domain = "BZip2";
constexpr std::size_t kChunkLength = 16384;
constexpr std::size_t kLargestPass = std::size_t{1} << 30;  // libbz2 counts input in an unsigned int

void report(std::optional<ZRVError>* error, long code) {
  if (error) *error = ZRVError(std::string(kBZip2Domain), code);
}

}  // namespace

namespace ZRVExtensions {

bool decompressBZIP2CompressedDataToURL(const ZRVData& data, const std::filesystem::path& destination,
                                        std::optional<ZRVError>* error) {
  if (error) *error = std::nullopt;

  bz_stream stream{};
  if (int result = BZ2_bzDecompressInit(&stream, 0, 0); result != BZ_OK) {
    report(error, result);
    return false;
  }
  std::FILE* file = std::fopen(destination.c_str(), "w");
  if (!file) {
    int openError = errno;
    BZ2_bzDecompressEnd(&stream);
    report(error, openError);
    return false;
  }

  const std::uint8_t* pending = data.data();
  std::size_t pendingLength = data.size();
  char chunk[kChunkLength];
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
      std::fclose(file);
      BZ2_bzDecompressEnd(&stream);
      return true;
    }
    // Only an outright failure of fwrite is reported; a short count is left to the callers' digests too.
    if (std::fwrite(chunk, 1, produced, file) == static_cast<std::size_t>(-1)) {
      int writeError = errno;
      std::fclose(file);
      BZ2_bzDecompressEnd(&stream);
      report(error, writeError);
      return false;
    }
    if (result == BZ_STREAM_END) {
      std::fclose(file);
      BZ2_bzDecompressEnd(&stream);
      return true;
    }
  }
}

}  // namespace ZRVExtensions
