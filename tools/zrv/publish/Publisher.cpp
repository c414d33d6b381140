#include "publish/Publisher.h"

#include "patchmaker/PatchMaker.h"
#include "publish/InOrderWork.h"

#include <ZRVKit/ZRVData.h>
#include <ZRVKit/ZRVExtensions.h>
#include <ZRVKit/ZRVJSON.h>

#include <bzlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

ZRVData readAll(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + file.string());
  return ZRVData(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A file written beside its final place and renamed over it when complete; removed if never committed.
class AtomicOutput {
 public:
  explicit AtomicOutput(fs::path destination) : destination_(std::move(destination)) {
    static std::atomic<unsigned> counter{0};
    {
      // Files are written from several threads; folders are made one at a time.
      static std::mutex folders;
      std::lock_guard lock(folders);
      fs::create_directories(destination_.parent_path());
    }
    temporary_ = destination_.parent_path() / ("." + destination_.filename().string() + "." +
                                               std::to_string(getpid()) + "." + std::to_string(counter++) + ".partial");
    file_ = std::fopen(temporary_.c_str(), "wb");
    if (!file_) throw std::runtime_error("cannot write " + destination_.string());
  }
  ~AtomicOutput() {
    if (file_) std::fclose(file_);
    if (!committed_) {
      std::error_code ignored;
      fs::remove(temporary_, ignored);
    }
  }
  AtomicOutput(const AtomicOutput&) = delete;
  AtomicOutput& operator=(const AtomicOutput&) = delete;

  void write(const void* data, std::size_t size) {
    if (size && std::fwrite(data, 1, size, file_) != size) throw std::runtime_error("cannot write " + destination_.string());
  }
  const fs::path& temporary() const { return temporary_; }
  void flush() {
    if (std::fflush(file_) != 0) throw std::runtime_error("cannot write " + destination_.string());
  }
  void commit() {
    bool closed = std::fclose(file_) == 0;
    file_ = nullptr;
    if (!closed || std::rename(temporary_.c_str(), destination_.c_str()) != 0) {
      throw std::runtime_error("cannot write " + destination_.string());
    }
    committed_ = true;
  }

 private:
  fs::path destination_;
  fs::path temporary_;
  std::FILE* file_ = nullptr;
  bool committed_ = false;
};

void writeAll(const fs::path& file, const void* data, std::size_t size) {
  AtomicOutput out(file);
  out.write(data, size);
  out.commit();
}

// Compresses `source` into `destination` as a stream, so that files of any size (4 GiB and more) go through
// a fixed amount of memory. Returns the SHA-1 of the compressed bytes.
std::string compressFile(const fs::path& source, const fs::path& destination) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> in(std::fopen(source.c_str(), "rb"), std::fclose);
  if (!in) throw std::runtime_error("cannot read " + source.string());
  AtomicOutput out(destination);
  bz_stream stream{};
  if (BZ2_bzCompressInit(&stream, 9, 0, 0) != BZ_OK) throw std::runtime_error("bzip2 compression failed");
  std::unique_ptr<bz_stream, int (*)(bz_stream*)> ending(&stream, BZ2_bzCompressEnd);
  std::vector<char> input(1 << 20), output(1 << 20);
  bool atEnd = false;
  int result = BZ_RUN_OK;
  while (result != BZ_STREAM_END) {
    if (stream.avail_in == 0 && !atEnd) {
      std::size_t count = std::fread(input.data(), 1, input.size(), in.get());
      if (std::ferror(in.get())) throw std::runtime_error("cannot read " + source.string());
      atEnd = count < input.size();
      stream.next_in = input.data();
      stream.avail_in = static_cast<unsigned int>(count);
    }
    stream.next_out = output.data();
    stream.avail_out = static_cast<unsigned int>(output.size());
    result = BZ2_bzCompress(&stream, atEnd && stream.avail_in == 0 ? BZ_FINISH : BZ_RUN);
    if (result != BZ_RUN_OK && result != BZ_FINISH_OK && result != BZ_STREAM_END) {
      throw std::runtime_error("bzip2 compression failed (" + std::to_string(result) + ")");
    }
    out.write(output.data(), output.size() - stream.avail_out);
  }
  out.flush();
  std::string hash = ZRVExtensions::sha1Hash(out.temporary());
  out.commit();
  return hash;
}

ZRVData compress(const ZRVData& data) {
  ZRVData out(data.size() + data.size() / 100 + 600);
  auto length = static_cast<unsigned int>(out.size());
  int result = BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(out.data()), &length,
                                        const_cast<char*>(reinterpret_cast<const char*>(data.data())),
                                        static_cast<unsigned int>(data.size()), 9, 0, 0);
  if (result != BZ_OK) throw std::runtime_error("bzip2 compression failed (" + std::to_string(result) + ")");
  out.resize(length);
  return out;
}

// The manifest's "dl" is percent-encoded; "/" separates folders.
std::string percentEncoded(const std::string& text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~' || c == '/') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

// Every regular file of a build, by its name relative to the build's folder ("data/level.dat").
std::map<std::string, fs::path> filesOf(const fs::path& build) {
  if (!fs::is_directory(build)) throw std::runtime_error(build.string() + " is not a folder");
  std::map<std::string, fs::path> files;
  for (const auto& entry : fs::recursive_directory_iterator(build)) {
    if (entry.is_regular_file()) files[fs::relative(entry.path(), build).generic_string()] = entry.path();
  }
  return files;
}

}  // namespace

namespace {

struct PatchEntry {
  std::string oldHash;
  std::string filename;
  std::string patchHash;
  std::string compPatchHash;
};

struct PublishedFile {
  std::string hash;
  std::string compHash;
  std::string download;
  std::vector<PatchEntry> patches;
};

using Build = std::map<std::string, fs::path>;

// Compresses one file of the new build and makes its patches from the older builds.
PublishedFile publishFile(const std::string& name, const fs::path& path, const std::vector<Build>& olderBuilds,
                          const fs::path& content) {
  PublishedFile published;
  published.download = "files/" + name + ".bz2";
  published.compHash = compressFile(path, content / published.download);
  published.hash = ZRVExtensions::sha1Hash(path);
  std::uintmax_t size = fs::file_size(path);

  std::optional<ZRVData> contents;
  for (const auto& older : olderBuilds) {
    auto old = older.find(name);
    if (old == older.end() || size > kMaxPatchedFileSize || fs::file_size(old->second) > kMaxPatchedFileSize) continue;
    std::string oldHash = ZRVExtensions::sha1Hash(old->second);
    bool known = std::any_of(published.patches.begin(), published.patches.end(),
                             [&](const PatchEntry& entry) { return entry.oldHash == oldHash; });
    if (oldHash == published.hash || known) continue;
    if (!contents) contents = readAll(path);
    ZRVData patch = makePatch(readAll(old->second), *contents, false);
    ZRVData compressedPatch = compress(patch);
    std::string filename = "patches/" + name + "." + oldHash.substr(0, 12) + ".bz2";
    writeAll(content / filename, compressedPatch.data(), compressedPatch.size());
    published.patches.push_back(
        {oldHash, filename, ZRVExtensions::sha1Hash(patch), ZRVExtensions::sha1Hash(compressedPatch)});
  }
  return published;
}

// What publishing `path` holds in memory at most: the compressor's state, and when patches are made, both
// contents, the old file's suffix array (four bytes a byte), the diff and extra streams and their compressed
// forms (about the new size twice).
std::uintmax_t memoryClaim(const std::string& name, const fs::path& path, const std::vector<Build>& olderBuilds) {
  constexpr std::uintmax_t kCompressor = std::uintmax_t{16} << 20;
  std::uintmax_t size = fs::file_size(path);
  std::uintmax_t largestOld = 0;
  bool patched = false;
  for (const auto& older : olderBuilds) {
    auto old = older.find(name);
    if (old == older.end()) continue;
    std::uintmax_t oldSize = fs::file_size(old->second);
    if (size > kMaxPatchedFileSize || oldSize > kMaxPatchedFileSize) continue;
    patched = true;
    largestOld = std::max(largestOld, oldSize);
  }
  return kCompressor + (patched ? 3 * size + 5 * largestOld : 0);
}

}  // namespace

PublishSummary publishBuild(const PublishOptions& options) {
  auto newFiles = filesOf(options.newBuild);
  std::vector<Build> olderFiles;
  for (const auto& build : options.olderBuilds) olderFiles.push_back(filesOf(build));

  const fs::path content = options.output / "content";
  std::vector<std::pair<std::string, fs::path>> files(newFiles.begin(), newFiles.end());
  std::vector<std::uintmax_t> claims;
  claims.reserve(files.size());
  for (const auto& [name, path] : files) claims.push_back(memoryClaim(name, path, olderFiles));
  std::vector<PublishedFile> published(files.size());

  // Files are published in parallel; the manifest and the progress follow the files' order, as from one thread.
  ZRVJSON manifest = ZRVJSON::object();
  PublishSummary summary;
  InOrderWork plan;
  plan.workers = workerCount(options.workers);
  plan.budget = options.bytesInFlight;
  plan.claim = [&](std::size_t i) { return claims[i]; };
  plan.work = [&](std::size_t i) { published[i] = publishFile(files[i].first, files[i].second, olderFiles, content); };
  plan.finished = [&](std::size_t i) {
    const PublishedFile& file = published[i];
    ZRVJSON patches = ZRVJSON::object();
    for (const auto& entry : file.patches) {
      patches[entry.oldHash] = {{"filename", entry.filename},
                                {"patchHash", entry.patchHash},
                                {"compPatchHash", entry.compPatchHash}};
    }
    manifest[files[i].first] = {{"only", options.platforms},
                                {"hash", file.hash},
                                {"compHash", file.compHash},
                                {"dl", percentEncoded(file.download)},
                                {"patches", patches}};
    ++summary.files;
    summary.patches += file.patches.size();
    if (options.progress) options.progress(files[i].first, file.patches.size());
    published[i] = {};
  };
  runInOrder(files.size(), plan);

  // The files first, the manifest last: a launcher that reads the new manifest finds everything it names.
  if (options.frameworkArchive) {
    ZRVData archive = readAll(*options.frameworkArchive);
    writeAll(options.output / "launcher/mac/aditional-libraries/Cg.framework.zip", archive.data(), archive.size());
  }
  std::vector<std::string> mirrorList = options.mirrors;
  if (mirrorList.empty()) {
    std::string base = options.baseURL;
    while (!base.empty() && base.back() == '/') base.pop_back();
    mirrorList.push_back(base + "/content/");
  }
  std::string mirrors = ZRVJSON(mirrorList).dump() + "\n";
  writeAll(options.output / "mirrors.txt", mirrors.data(), mirrors.size());
  std::string manifestText = manifest.dump(2) + "\n";
  writeAll(content / "patchmanifest.txt", manifestText.data(), manifestText.size());
  return summary;
}
