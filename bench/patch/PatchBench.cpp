// Binary patches and bzip2 decoding side by side with Debian's bspatch and bzip2 -d, on a generated 48 MiB
// game-like file. Every contender runs as a child process and is measured the same way: wall time, and peak
// resident memory from wait4's resource usage of that child alone.
//
//   patch_bench --zrv PATH --work FOLDER [--runs N] [--keep]
//   patch_bench --decode IN.bz2 OUT        (child mode: the library's bzip2-to-file)

#include <ZRVKit/ZRVExtensions.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kFileSize = 48u << 20;

ZRVData load(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return ZRVData(std::istreambuf_iterator<char>(stream), {});
}

void save(const std::filesystem::path& file, const ZRVData& bytes) {
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

/// Something like a game's asset pack: mesh records with slowly varying floats, name tables, already
/// compressed texture blobs, and zero padding.
ZRVData gameLikeFile(std::uint64_t seed) {
  std::mt19937_64 random(seed);
  ZRVData bytes;
  bytes.reserve(kFileSize);
  std::uint32_t record = 0;
  while (bytes.size() < kFileSize) {
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
  bytes.resize(kFileSize);
  return bytes;
}

/// The next version: scattered small edits, one block inserted and one deleted.
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

struct Measurement {
  double seconds = 1e9;
  long peakKiB = 0;
};

/// Runs `argv` as a child (its standard output to `output` when given) `runs` times; the best time and the
/// largest peak memory.
Measurement measure(const std::vector<std::string>& argv, int runs, const std::string& output = "") {
  Measurement best;
  for (int run = 0; run < runs; ++run) {
    // posix_spawn rather than fork: a forked child would count this process's pages in its peak memory.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!output.empty()) {
      posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    }
    std::vector<char*> words;
    for (const auto& word : argv) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    if (posix_spawnp(&child, words[0], &actions, nullptr, words.data(), environ) != 0) {
      std::cerr << "cannot start " << argv[0] << "\n";
      std::exit(1);
    }
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      std::cerr << "failed: " << argv[0] << "\n";
      std::exit(1);
    }
    best.seconds = std::min(best.seconds, seconds);
    best.peakKiB = std::max(best.peakKiB, usage.ru_maxrss);
  }
  return best;
}

void report(const char* what, const Measurement& measurement, double mebibytes) {
  std::printf("  %-26s %8.3f s  %8.1f MiB/s  peak %7.1f MiB\n", what, measurement.seconds, mebibytes / measurement.seconds,
              static_cast<double>(measurement.peakKiB) / 1024.0);
}

/// True when both files hold the same bytes, read in small pieces so this process stays small.
bool sameFile(const std::string& a, const std::string& b) {
  std::ifstream first(a, std::ios::binary), second(b, std::ios::binary);
  std::vector<char> x(1 << 16), y(1 << 16);
  while (first && second) {
    first.read(x.data(), static_cast<std::streamsize>(x.size()));
    second.read(y.data(), static_cast<std::streamsize>(y.size()));
    if (first.gcount() != second.gcount() || !std::equal(x.begin(), x.begin() + first.gcount(), y.begin())) return false;
  }
  return first.eof() && second.eof();
}

int generateChild(const char* oldFile, const char* newFile) {
  const ZRVData old = gameLikeFile(1);
  save(oldFile, old);
  save(newFile, nextVersion(old));
  return 0;
}

int decodeChild(const char* input, const char* output) {
  std::optional<ZRVError> error;
  return ZRVExtensions::decompressBZIP2CompressedDataToURL(load(input), output, &error) && !error ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  // The large buffers live in child processes only: a child's peak memory includes its parent's peak.
  if (argc == 4 && std::strcmp(argv[1], "--decode") == 0) return decodeChild(argv[2], argv[3]);
  if (argc == 4 && std::strcmp(argv[1], "--generate") == 0) return generateChild(argv[2], argv[3]);
  std::string zrv, work;
  int runs = 3;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--zrv") == 0) zrv = argv[i + 1];
    if (std::strcmp(argv[i], "--work") == 0) work = argv[i + 1];
    if (std::strcmp(argv[i], "--runs") == 0) runs = std::max(1, std::atoi(argv[i + 1]));
  }
  if (zrv.empty() || work.empty()) {
    std::cerr << "usage: patch_bench --zrv PATH --work FOLDER [--runs N]\n";
    return 2;
  }
  const std::filesystem::path folder = work;
  const std::string self = std::filesystem::canonical("/proc/self/exe").string();
  auto path = [&](const char* name) { return (folder / name).string(); };

  measure({self, "--generate", path("old"), path("new")}, 1);
  const double newMiB = static_cast<double>(std::filesystem::file_size(path("new"))) / (1 << 20);

  std::printf("Binary patch: %.1f MiB old, %.1f MiB new, best of %d runs\n",
              static_cast<double>(std::filesystem::file_size(path("old"))) / (1 << 20), newMiB, runs);
  Measurement diff = measure({"bsdiff", path("old"), path("new"), path("patch")}, 1);
  std::printf("  bsdiff made a %.2f MiB patch in %.1f s\n",
              static_cast<double>(std::filesystem::file_size(path("patch"))) / (1 << 20), diff.seconds);
  Measurement bspatch = measure({"bspatch", path("old"), path("by-bspatch"), path("patch")}, runs);
  Measurement library = measure({zrv, "patch", path("old"), path("patch"), path("by-zrv")}, runs);
  if (!sameFile(path("by-bspatch"), path("new")) || !sameFile(path("by-zrv"), path("new"))) {
    std::cerr << "the patched files differ from the new file\n";
    return 1;
  }
  report("bspatch", bspatch, newMiB);
  report("zrv patch (ZRVKit)", library, newMiB);
  std::printf("  time ratio ZRVKit/bspatch: %.2f (goal <= 0.5)\n", library.seconds / bspatch.seconds);

  std::printf("bzip2 to a file: %.1f MiB decoded\n", newMiB);
  measure({"bzip2", "-k", "-9", "-f", path("new")}, 1);
  std::printf("  compressed: %.2f MiB\n", static_cast<double>(std::filesystem::file_size(path("new.bz2"))) / (1 << 20));
  Measurement bunzip = measure({"bzip2", "-d", "-c", path("new.bz2")}, runs, path("by-bzip2"));
  Measurement decode = measure({self, "--decode", path("new.bz2"), path("by-zrvkit")}, runs);
  if (!sameFile(path("by-bzip2"), path("new")) || !sameFile(path("by-zrvkit"), path("new"))) {
    std::cerr << "the decoded files differ from the original\n";
    return 1;
  }
  report("bzip2 -d", bunzip, newMiB);
  report("ZRVKit", decode, newMiB);
  std::printf("  throughput ratio ZRVKit/bzip2: %.2f (goal >= 2)\n", bunzip.seconds / decode.seconds);
  return 0;
}
