// Fuzzes bzip2 decompression into a file inside a temporary folder of its own, block-parallel and sequentially:
// both must write the same bytes.

#include "FuzzSupport.h"
#include "update/bzip2/BZip2BlockPipeline.h"

#include <ZRVKit/ZRVExtensions.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <optional>
#include <string>

using namespace zrv::bzip2;  // the codec's internals under test

namespace {

const std::filesystem::path& outputFile(const char* name) {
  static const std::filesystem::path parallel = fuzz::scratchFolder() / "parallel";
  static const std::filesystem::path sequential = fuzz::scratchFolder() / "sequential";
  return name[0] == 'p' ? parallel : sequential;
}

std::string decodeWithParallelFrom(const ZRVData& input, std::size_t minimumLength, const char* name) {
  BZip2BlockPipeline::minimumInputLength = minimumLength;
  std::optional<ZRVError> error;
  // Whatever the input, the destination can be written, so the answer is always success.
  if (!ZRVExtensions::decompressBZIP2CompressedDataToURL(input, outputFile(name), &error) || error) std::abort();
  std::ifstream file(outputFile(name), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const ZRVData input(data, data + size);
  if (decodeWithParallelFrom(input, 0, "parallel") !=
      decodeWithParallelFrom(input, std::numeric_limits<std::size_t>::max(), "sequential")) {
    std::abort();
  }
  return 0;
}
