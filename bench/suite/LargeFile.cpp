#include "LargeFile.h"

#include <ZRVKit/ZRVExtensions.h>

#include <bzlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kBlock = 4096;
constexpr std::uint64_t kChangeEvery = std::uint64_t{97} << 20;  // a changed byte every 97 MiB

// A 4 KiB block of a game file: one in eight is noise, the others records with a counter.
void fillBlock(std::uint64_t index, std::uint8_t* block) {
  std::uint64_t state = index * 0x9E3779B97F4A7C15ull + 1;
  const bool noise = (state >> 7) % 8 == 0;
  for (std::size_t at = 0; at < kBlock; at += 8) {
    std::uint64_t word;
    if (noise) {
      state ^= state << 13;
      state ^= state >> 7;
      state ^= state << 17;
      word = state;
    } else {
      word = (index << 16) | (at / 8);
    }
    std::memcpy(block + at, &word, 8);
  }
}

void appendOfftout(std::string& out, std::int64_t value) {
  std::uint64_t magnitude = value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>(magnitude >> (8 * i)));
  if (value < 0) out.back() = static_cast<char>(out.back() | 0x80);
}

// bzip2 -9 of a stream fed piece by piece, into memory (the streams here compress to little).
class Compressor {
 public:
  Compressor() {
    if (BZ2_bzCompressInit(&stream_, 9, 0, 0) != BZ_OK) throw std::runtime_error("bzip2");
  }
  ~Compressor() { BZ2_bzCompressEnd(&stream_); }
  void add(const void* data, std::size_t size) { pump(data, size, BZ_RUN); }
  std::string finish() {
    pump(nullptr, 0, BZ_FINISH);
    return out_;
  }

 private:
  void pump(const void* data, std::size_t size, int action) {
    stream_.next_in = const_cast<char*>(static_cast<const char*>(data));
    stream_.avail_in = static_cast<unsigned>(size);
    char buffer[1 << 16];
    for (;;) {
      stream_.next_out = buffer;
      stream_.avail_out = sizeof buffer;
      int result = BZ2_bzCompress(&stream_, action);
      out_.append(buffer, sizeof buffer - stream_.avail_out);
      if (result == BZ_STREAM_END || (action == BZ_RUN && stream_.avail_in == 0)) return;
      if (result != BZ_RUN_OK && result != BZ_FINISH_OK) throw std::runtime_error("bzip2");
    }
  }
  bz_stream stream_{};
  std::string out_;
};

std::string compressed(const std::string& data) {
  Compressor compressor;
  compressor.add(data.data(), data.size());
  return compressor.finish();
}

void write(const fs::path& file, const std::string& bytes) {
  fs::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string patchPath(const std::string& oldHash) { return "patches/big.dat." + oldHash.substr(0, 12) + ".bz2"; }

int makeLarge(std::uint64_t sizeMiB, const fs::path& oldFile, const fs::path& newFile, const fs::path& tree) {
  const std::uint64_t size = sizeMiB << 20;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> old(std::fopen(oldFile.c_str(), "wb"), std::fclose);
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> now(std::fopen(newFile.c_str(), "wb"), std::fclose);
  if (!old || !now) return 1;
  Compressor diff;
  std::vector<std::uint8_t> block(kBlock), changed(kBlock), difference(kBlock);
  for (std::uint64_t offset = 0; offset < size; offset += kBlock) {
    fillBlock(offset / kBlock, block.data());
    changed = block;
    std::fill(difference.begin(), difference.end(), 0);
    if (offset % kChangeEvery == 0) {
      changed[100] = static_cast<std::uint8_t>(changed[100] + 1);
      difference[100] = 1;
    }
    if (std::fwrite(block.data(), 1, kBlock, old.get()) != kBlock ||
        std::fwrite(changed.data(), 1, kBlock, now.get()) != kBlock) {
      return 1;
    }
    diff.add(difference.data(), kBlock);
  }
  old.reset();
  now.reset();
  std::string control;
  appendOfftout(control, static_cast<std::int64_t>(size));
  appendOfftout(control, 0);
  appendOfftout(control, 0);
  const std::string controlStream = compressed(control), diffStream = diff.finish(), extraStream = compressed("");
  std::string patch = "BSDIFF40";
  appendOfftout(patch, static_cast<std::int64_t>(controlStream.size()));
  appendOfftout(patch, static_cast<std::int64_t>(diffStream.size()));
  appendOfftout(patch, static_cast<std::int64_t>(size));
  patch += controlStream + diffStream + extraStream;
  const std::string oldHash = ZRVExtensions::sha1Hash(oldFile);
  write(tree / "content" / patchPath(oldHash), compressed(patch));
  write(tree / "patch.raw", patch);
  return 0;
}

std::string hashOf(const std::string& bytes) {
  return ZRVExtensions::sha1Hash(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

std::string readAll(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

int largeManifest(const fs::path& oldFile, const fs::path& newFile, const fs::path& tree) {
  const std::string oldHash = ZRVExtensions::sha1Hash(oldFile);
  const std::string patch = readAll(tree / "patch.raw");
  const std::string manifest =
      "{\"big.dat\": {\"only\": [\"darwin\"], \"hash\": \"" + ZRVExtensions::sha1Hash(newFile) + "\", \"compHash\": \"" +
      ZRVExtensions::sha1Hash(tree / "content" / "files" / "big.dat.bz2") +
      "\", \"dl\": \"files/big.dat.bz2\", \"patches\": {\"" + oldHash + "\": {\"filename\": \"" + patchPath(oldHash) +
      "\", \"patchHash\": \"" + hashOf(patch) + "\", \"compPatchHash\": \"" +
      ZRVExtensions::sha1Hash(tree / "content" / patchPath(oldHash)) + "\"}}}}\n";
  write(tree / "content" / "patchmanifest.txt", manifest);
  return 0;
}

}  // namespace

int runLargeFileMode(int argc, char** argv) {
  if (argc < 2) return -1;
  const std::string mode = argv[1];
  if (mode == kMakeLarge && argc == 6) return makeLarge(std::stoull(argv[2]), argv[3], argv[4], argv[5]);
  if (mode == kLargeManifest && argc == 5) return largeManifest(argv[2], argv[3], argv[4]);
  return -1;
}
