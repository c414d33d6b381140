// Fuzzes bzip2 decompression into a file inside a temporary folder of its own, block-parallel and sequentially:
// both must write the same bytes.

#include "update/BZip2BlockPipeline.h"

#include <ZRVKit/ZRVExtensions.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>

namespace {

const std::filesystem::path& outputFile(const char* name) {
  // Never destroyed, so the clean-up at exit still finds it.
  static const std::filesystem::path* folder = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "zrv-bzip2-fuzz-XXXXXX").string();
    if (!mkdtemp(pattern.data())) std::abort();
    auto* made = new std::filesystem::path(pattern);
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(*folder, ignored);
    });
    return made;
  }();
  static const std::filesystem::path* files[] = {new std::filesystem::path(*folder / "parallel"),
                                                 new std::filesystem::path(*folder / "sequential")};
  return *files[name[0] == 'p' ? 0 : 1];
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
