#include "Workloads.h"

#include <ZRVKit/ZRVExtensions.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <optional>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kPackSize = 48u << 20;

ZRVData load(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return ZRVData(std::istreambuf_iterator<char>(stream), {});
}

void save(const fs::path& file, const ZRVData& bytes) {
  fs::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// Something like a game's asset pack: mesh records with slowly varying floats, name tables, already compressed
// texture blobs, and zero padding.
ZRVData gameLikeFile(std::uint64_t seed) {
  std::mt19937_64 random(seed);
  ZRVData bytes;
  bytes.reserve(kPackSize);
  std::uint32_t record = 0;
  while (bytes.size() < kPackSize) {
    switch (random() % 4) {
      case 0: {  // vertices: position, normal, uv as floats
        float x = 0, y = 0, z = 0;
        for (int i = 0; i < 2000; ++i) {
          x += 0.01f * static_cast<float>(random() % 100);
          y += 0.02f;
          z = static_cast<float>(i % 64);
          float vertex[8] = {x, y, z, 0.0f, 1.0f, 0.0f, static_cast<float>(i % 32) / 32.0f, 0.5f};
          auto* raw = reinterpret_cast<const std::uint8_t*>(vertex);
          bytes.insert(bytes.end(), raw, raw + sizeof vertex);
        }
        break;
      }
      case 1: {  // name table
        for (int i = 0; i < 1500; ++i) {
          std::string name = "quillmoor/zone" + std::to_string(record % 40) + "/prop_" + std::to_string(record) + ".mdl";
          ++record;
          bytes.insert(bytes.end(), name.begin(), name.end());
          bytes.push_back(0);
        }
        break;
      }
      case 2: {  // a compressed texture: nearly incompressible
        std::size_t length = 16384 + random() % 32768;
        for (std::size_t i = 0; i < length; ++i) bytes.push_back(static_cast<std::uint8_t>(random()));
        break;
      }
      default:  // alignment padding
        bytes.insert(bytes.end(), 4096 + random() % 8192, 0);
    }
  }
  bytes.resize(kPackSize);
  return bytes;
}

ZRVData nextVersion(const ZRVData& old) {
  std::mt19937_64 random(99);
  ZRVData bytes = old;
  for (int i = 0; i < 20000; ++i) bytes[random() % bytes.size()] += 1;
  ZRVData inserted(256 * 1024);
  for (auto& byte : inserted) byte = static_cast<std::uint8_t>(random());
  bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(bytes.size() / 3), inserted.begin(), inserted.end());
  auto cut = bytes.begin() + static_cast<std::ptrdiff_t>(2 * bytes.size() / 3);
  bytes.erase(cut, cut + 512 * 1024);
  return bytes;
}

bool decode(const fs::path& input, const fs::path& output) {
  std::optional<ZRVError> error;
  return ZRVExtensions::decompressBZIP2CompressedDataToURL(load(input), output, &error) && !error;
}

int decodeEach(const fs::path& in, const fs::path& out) {
  fs::create_directories(out);
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(in)) {
    if (entry.path().extension() == ".bz2") files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  for (const auto& file : files) {
    if (!decode(file, out / file.stem())) return 1;
  }
  return 0;
}

void makeUnzipTree(const fs::path& folder) {
  std::uint64_t state = 0x9E3779B97F4A7C15ull;
  const std::string line = "The invasion of the northern district was repelled at dawn. ";
  for (int i = 0; i < 1000; ++i) {
    std::string data(100 * 1024, '\0');
    for (std::size_t at = 0; at + 8 <= data.size(); at += 8) {
      state ^= state << 13;
      state ^= state >> 7;
      state ^= state << 17;
      std::memcpy(&data[at], &state, 8);
    }
    while (data.size() < 130 * 1024) data += line + std::to_string(i) + "\n";
    fs::path file = folder / ("group" + std::to_string(i / 100)) / ("file" + std::to_string(i) + ".dat");
    save(file, ZRVData(data.begin(), data.end()));
  }
}

// The manifest is written as text: COUNT entries of the shape the publisher writes, for files that are
// already in place, so that an update reads it, finds every file up to date and queues nothing to fetch.
void makeManifest(long count, const fs::path& out, const fs::path& install) {
  fs::create_directories(install / "Frameworks" / "Cg.framework");
  std::string manifest = "{\n";
  for (long i = 0; i < count; ++i) {
    char name[64];
    std::snprintf(name, sizeof name, "data/d%03ld/f%06ld.dat", i % 200, i);
    std::string contents = "tiny file " + std::to_string(i) + "\n";
    save(install / name, ZRVData(contents.begin(), contents.end()));
    std::string hash = ZRVExtensions::sha1Hash(reinterpret_cast<const std::uint8_t*>(contents.data()), contents.size());
    manifest += std::string(i ? ",\n" : "") + "  \"" + name + "\": {\"only\": [\"darwin\"], \"hash\": \"" + hash +
                "\", \"compHash\": \"" + hash + "\", \"dl\": \"files/" + name + ".bz2\", \"patches\": {}}";
  }
  manifest += "\n}\n";
  save(out / "content" / "patchmanifest.txt", ZRVData(manifest.begin(), manifest.end()));
}

}  // namespace

int runWorkloadMode(int argc, char** argv) {
  if (argc < 2) return -1;
  const std::string mode = argv[1];
  if (mode == kMakePatchPair && argc == 4) {
    const ZRVData old = gameLikeFile(1);
    save(argv[2], old);
    save(argv[3], nextVersion(old));
    return 0;
  }
  if (mode == kDecode && argc == 4) return decode(argv[2], argv[3]) ? 0 : 1;
  if (mode == kDecodeEach && argc == 4) return decodeEach(argv[2], argv[3]);
  if (mode == kMakeUnzipTree && argc == 3) {
    makeUnzipTree(argv[2]);
    return 0;
  }
  if (mode == kMakeManifest && argc == 5) {
    makeManifest(std::stol(argv[2]), argv[3], argv[4]);
    return 0;
  }
  return -1;
}
