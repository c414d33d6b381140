#pragma once
// Shared by the fuzz targets: a private scratch folder for targets that read files, removed at exit, and the
// input as a server's answer.

#include <ZRVKit/ZRVHTTPResponse.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace fuzz {

inline const std::filesystem::path& scratchFolder() {
  // Never destroyed, so the clean-up at exit still finds it.
  static const std::filesystem::path* folder = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "zrv-fuzz-XXXXXX").string();
    if (!mkdtemp(pattern.data())) std::abort();
    auto* made = new std::filesystem::path(pattern);
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(*folder, ignored);
    });
    return made;
  }();
  return *folder;
}

inline void writeBytes(const std::filesystem::path& file, const std::uint8_t* data, std::size_t size) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

/// The input as the body of a 200 answer.
inline ZRVHTTPResult answer(const std::uint8_t* data, std::size_t size) {
  ZRVHTTPResult result;
  result.response = ZRVHTTPResponse{};
  result.response->statusCode = 200;
  result.body = ZRVData(data, data + size);
  return result;
}

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

}  // namespace fuzz
