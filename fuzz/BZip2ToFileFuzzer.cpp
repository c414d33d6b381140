// Fuzzes bzip2 decompression into a file inside a temporary folder of its own.

#include <ZRVKit/ZRVExtensions.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

const std::filesystem::path& outputFile() {
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
  static const std::filesystem::path* file = new std::filesystem::path(*folder / "output");
  return *file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const ZRVData input(data, data + size);
  std::optional<ZRVError> error;
  // Whatever the input, the destination can be written, so the answer is always success.
  if (!ZRVExtensions::decompressBZIP2CompressedDataToURL(input, outputFile(), &error) || error) std::abort();
  return 0;
}
