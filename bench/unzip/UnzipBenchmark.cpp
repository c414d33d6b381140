// Unpacks one archive of 1,000 files (about 100 MiB, made by Info-ZIP's zip) with `zrv unzip` and with
// Info-ZIP's `unzip`, each started as a child process, into a fresh folder per run. The same files
// encrypted, with ZipCrypto by Info-ZIP's zip and with AES-256 by 7-Zip, are unpacked by zrv and by their
// maker's own unpacker.
//
// Each file is 100 KiB of noise (stored almost as is) and 30 KiB of text (deflated well), so that both the
// copying and the inflating of an unpacker count.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace fs = std::filesystem;

namespace {

constexpr int kFiles = 1000;
constexpr std::size_t kNoiseBytes = 100 * 1024;
constexpr std::size_t kTextBytes = 30 * 1024;

void run(const std::string& commandLine) {
  if (std::system(commandLine.c_str()) != 0) throw std::runtime_error("failed: " + commandLine);
}

// A benchmark's password, handed to the unpackers on standard input where they can take it from there.
constexpr const char* kPassword = "bench-password";

struct Corpus {
  fs::path folder;
  fs::path archive;
  fs::path zipCryptoArchive;
  fs::path aesArchive;

  Corpus() {
    const char* base = std::getenv("ZRV_BENCH_DIR");
    folder = fs::path(base ? base : fs::temp_directory_path().string()) / "zrv-bench-unzip";
    archive = folder / "corpus.zip";
    zipCryptoArchive = folder / "corpus-zipcrypto.zip";
    aesArchive = folder / "corpus-aes256.zip";
    if (fs::exists(archive) && fs::exists(zipCryptoArchive) && fs::exists(aesArchive)) return;
    fs::remove_all(folder);
    std::uint64_t state = 0x9E3779B97F4A7C15ull;
    const std::string line = "The invasion of the northern district was repelled at dawn. ";
    for (int i = 0; i < kFiles; ++i) {
      fs::path file = folder / "tree" / ("group" + std::to_string(i / 100)) / ("file" + std::to_string(i) + ".dat");
      fs::create_directories(file.parent_path());
      std::string data(kNoiseBytes, '\0');
      for (std::size_t at = 0; at + 8 <= data.size(); at += 8) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        std::memcpy(&data[at], &state, 8);
      }
      while (data.size() < kNoiseBytes + kTextBytes) data += line + std::to_string(i) + "\n";
      std::ofstream(file, std::ios::binary) << data;
    }
    run("cd '" + folder.string() + "' && zip -qr corpus.zip tree");
    run("cd '" + folder.string() + "' && zip -qr -P " + kPassword + " corpus-zipcrypto.zip tree");
    run("cd '" + folder.string() + "' && 7z a -tzip -bd -mem=AES256 -p" + kPassword +
        " corpus-aes256.zip tree >/dev/null");
    fs::remove_all(folder / "tree");
  }
};

const Corpus& corpus() {
  static const Corpus made;
  return made;
}

std::string quoted(const fs::path& path) {
  std::string text = "'";
  text += path.string();
  text += '\'';
  return text;
}

// `commandLine` gets the archive and the destination.
template <class CommandLine>
void unpackWith(benchmark::State& state, CommandLine commandLine, const fs::path& archive) {
  const fs::path out = corpus().folder / "out";
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove_all(out);
    state.ResumeTiming();
    run(commandLine(quoted(archive), quoted(out)));
  }
  fs::remove_all(out);
  state.counters["archive_MiB"] = static_cast<double>(fs::file_size(archive)) / (1024.0 * 1024.0);
}

template <class CommandLine>
void unpackWith(benchmark::State& state, CommandLine commandLine) {
  unpackWith(state, commandLine, corpus().archive);
}

std::string zrvWithPassword(const std::string& archive, const std::string& out) {
  return std::string("echo ") + kPassword + " | " + ZRV_EXECUTABLE + " unzip --password-stdin " + archive + " " + out;
}

void BM_ZrvUnzip(benchmark::State& state) {
  unpackWith(state, [](const std::string& archive, const std::string& out) {
    return std::string(ZRV_EXECUTABLE) + " unzip " + archive + " " + out;
  });
}

void BM_InfoZipUnzip(benchmark::State& state) {
  unpackWith(state, [](const std::string& archive, const std::string& out) {
    return "unzip -q -o " + archive + " -d " + out;
  });
}

void BM_ZrvUnzipZipCrypto(benchmark::State& state) {
  unpackWith(state, zrvWithPassword, corpus().zipCryptoArchive);
}

void BM_InfoZipUnzipZipCrypto(benchmark::State& state) {
  unpackWith(
      state,
      [](const std::string& archive, const std::string& out) {
        return std::string("unzip -q -o -P ") + kPassword + " " + archive + " -d " + out;
      },
      corpus().zipCryptoArchive);
}

void BM_ZrvUnzipAES256(benchmark::State& state) { unpackWith(state, zrvWithPassword, corpus().aesArchive); }

void BM_7ZipExtractAES256(benchmark::State& state) {
  unpackWith(
      state,
      [](const std::string& archive, const std::string& out) {
        return std::string("7z x -y -bd -p") + kPassword + " -o" + out + " " + archive + " >/dev/null";
      },
      corpus().aesArchive);
}

}  // namespace

BENCHMARK(BM_ZrvUnzip)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_InfoZipUnzip)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_ZrvUnzipZipCrypto)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_InfoZipUnzipZipCrypto)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_ZrvUnzipAES256)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_7ZipExtractAES256)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

BENCHMARK_MAIN();
