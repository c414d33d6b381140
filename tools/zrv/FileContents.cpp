#include "FileContents.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace {
std::runtime_error fileError(const char* action, const std::filesystem::path& file) {
  return std::runtime_error(std::string("cannot ") + action + " " + file.string() + ": " + std::strerror(errno));
}
}  // namespace

ZRVData readFileContents(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) throw fileError("read", file);
  std::error_code error;
  auto size = std::filesystem::file_size(file, error);
  if (error) throw std::runtime_error("cannot read " + file.string() + ": " + error.message());
  ZRVData contents(size);
  if (!stream.read(reinterpret_cast<char*>(contents.data()), static_cast<std::streamsize>(size))) {
    throw fileError("read", file);
  }
  return contents;
}

void writeFileContents(const std::filesystem::path& file, const ZRVData& contents) {
  std::filesystem::path temporary = file;
  temporary += ".tmp";
  {
    std::ofstream stream(temporary, std::ios::binary | std::ios::trunc);
    if (!stream) throw fileError("write", temporary);
    stream.write(reinterpret_cast<const char*>(contents.data()), static_cast<std::streamsize>(contents.size()));
    stream.close();
    if (!stream) {
      std::filesystem::remove(temporary);
      throw fileError("write", temporary);
    }
  }
  std::error_code error;
  std::filesystem::rename(temporary, file, error);
  if (error) {
    std::filesystem::remove(temporary);
    throw std::runtime_error("cannot write " + file.string() + ": " + error.message());
  }
}
