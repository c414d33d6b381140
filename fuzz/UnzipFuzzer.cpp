// Fuzzes unpacking an archive, encrypted or not, into a fresh folder of its own: whatever the
// archive holds, nothing may appear beside that folder.

#include <ZRVKit/SSZipArchive.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

namespace {

const fs::path& workFolder() {
  // Never destroyed, so the clean-up at exit still finds it.
  static const fs::path* folder = [] {
    std::string pattern = (fs::temp_directory_path() / "zrv-unzip-fuzz-XXXXXX").string();
    if (!mkdtemp(pattern.data())) std::abort();
    auto* made = new fs::path(pattern);
    std::atexit([] {
      std::error_code ignored;
      fs::remove_all(*folder, ignored);
    });
    return made;
  }();
  return *folder;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fs::path archive = workFolder() / "archive.zip";
  const fs::path destination = workFolder() / "out";
  fs::remove_all(destination);
  {
    std::ofstream file(archive, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  // The password the encrypted seed archives were made with; entries without encryption ignore it.
  SSZipArchive::unzipFileAtPath(archive, destination, true, std::string("pw"), nullptr);

  for (const fs::directory_entry& entry : fs::directory_iterator(workFolder())) {
    if (entry.path() != archive && entry.path() != destination) std::abort();  // written outside the folder
  }
  return 0;
}
