#include "publish/Publisher.h"

#include "patchmaker/PatchMaker.h"

#include <ZRVKit/ZRVData.h>
#include <ZRVKit/ZRVExtensions.h>
#include <ZRVKit/ZRVJSON.h>

#include <bzlib.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

ZRVData readAll(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + file.string());
  return ZRVData(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeAll(const fs::path& file, const void* data, std::size_t size) {
  fs::create_directories(file.parent_path());
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
  if (!out) throw std::runtime_error("cannot write " + file.string());
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

PublishSummary publishBuild(const PublishOptions& options) {
  auto newFiles = filesOf(options.newBuild);
  std::vector<std::map<std::string, fs::path>> olderFiles;
  for (const auto& build : options.olderBuilds) olderFiles.push_back(filesOf(build));

  const fs::path content = options.output / "content";
  ZRVJSON manifest = ZRVJSON::object();
  PublishSummary summary;
  for (const auto& [name, path] : newFiles) {
    ZRVData contents = readAll(path);
    ZRVData compressed = compress(contents);
    std::string download = "files/" + name + ".bz2";
    writeAll(content / download, compressed.data(), compressed.size());
    std::string hash = ZRVExtensions::sha1Hash(contents);

    ZRVJSON patches = ZRVJSON::object();
    for (const auto& older : olderFiles) {
      auto old = older.find(name);
      if (old == older.end()) continue;
      ZRVData oldContents = readAll(old->second);
      std::string oldHash = ZRVExtensions::sha1Hash(oldContents);
      if (oldHash == hash || patches.contains(oldHash)) continue;
      ZRVData patch = makePatch(oldContents, contents, false);
      ZRVData compressedPatch = compress(patch);
      std::string filename = "patches/" + name + "." + oldHash.substr(0, 12) + ".bz2";
      writeAll(content / filename, compressedPatch.data(), compressedPatch.size());
      patches[oldHash] = {{"filename", filename},
                          {"patchHash", ZRVExtensions::sha1Hash(patch)},
                          {"compPatchHash", ZRVExtensions::sha1Hash(compressedPatch)}};
    }
    manifest[name] = {{"only", options.platforms},
                      {"hash", hash},
                      {"compHash", ZRVExtensions::sha1Hash(compressed)},
                      {"dl", percentEncoded(download)},
                      {"patches", patches}};
    ++summary.files;
    summary.patches += patches.size();
    if (options.progress) options.progress(name, patches.size());
  }

  std::string manifestText = manifest.dump(2) + "\n";
  writeAll(content / "patchmanifest.txt", manifestText.data(), manifestText.size());
  std::string base = options.baseURL;
  while (!base.empty() && base.back() == '/') base.pop_back();
  std::string mirrors = ZRVJSON::array({base + "/content/"}).dump() + "\n";
  writeAll(options.output / "mirrors.txt", mirrors.data(), mirrors.size());
  if (options.frameworkArchive) {
    ZRVData archive = readAll(*options.frameworkArchive);
    writeAll(options.output / "launcher/mac/aditional-libraries/Cg.framework.zip", archive.data(), archive.size());
  }
  return summary;
}
