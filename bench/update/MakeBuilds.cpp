// Writes two builds of a generated game: OUT/v1 and OUT/v2, FILES files of about SIZE bytes each.
// The files look like game data (compressible records mixed with noise); v2 changes a few regions of each
// file, inserts and deletes blocks, so that the patches are small but not trivial.
//
// usage: zrv_bench_make_builds OUT FILES SIZE

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

namespace {

Bytes gameFile(std::mt19937_64& random, std::size_t size) {
  Bytes data;
  data.reserve(size);
  std::uniform_int_distribution<int> kind(0, 9);
  while (data.size() < size) {
    std::size_t block = std::min<std::size_t>(4096, size - data.size());
    if (kind(random) < 3) {  // noise: textures, compressed sounds
      for (std::size_t i = 0; i < block; ++i) data.push_back(static_cast<std::uint8_t>(random()));
    } else {  // records: small integers, names, repeated layouts
      std::uint32_t id = static_cast<std::uint32_t>(random() % 5000);
      for (std::size_t i = 0; i < block; ++i) {
        data.push_back(static_cast<std::uint8_t>((i % 16 < 4) ? (id >> (8 * (i % 4))) : ("quillmoor-record"[i % 16])));
      }
    }
  }
  return data;
}

Bytes nextVersion(std::mt19937_64& random, Bytes data) {
  for (int change = 0; change < 12; ++change) {
    std::size_t at = random() % data.size();
    std::size_t length = std::min<std::size_t>(64 + random() % 512, data.size() - at);
    for (std::size_t i = 0; i < length; ++i) data[at + i] = static_cast<std::uint8_t>(data[at + i] + 1 + random() % 3);
  }
  std::size_t insertAt = random() % data.size();
  Bytes inserted(2048);
  for (auto& byte : inserted) byte = static_cast<std::uint8_t>(random());
  data.insert(data.begin() + static_cast<std::ptrdiff_t>(insertAt), inserted.begin(), inserted.end());
  std::size_t eraseAt = random() % (data.size() - 4096);
  data.erase(data.begin() + static_cast<std::ptrdiff_t>(eraseAt), data.begin() + static_cast<std::ptrdiff_t>(eraseAt + 1024));
  return data;
}

void write(const fs::path& file, const Bytes& data) {
  fs::create_directories(file.parent_path());
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s OUT FILES SIZE\n", argv[0]);
    return 2;
  }
  fs::path out = argv[1];
  int files = std::stoi(argv[2]);
  std::size_t size = std::stoull(argv[3]);
  std::mt19937_64 random(20261121);
  for (int i = 0; i < files; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "pack%03d.dat", i);
    Bytes v1 = gameFile(random, size);
    write(out / "v1" / name, v1);
    write(out / "v2" / name, nextVersion(random, std::move(v1)));
  }
  return 0;
}
