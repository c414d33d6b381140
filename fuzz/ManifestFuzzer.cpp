// Fuzzes the patch manifest as the update driver reads it: the bounded JSON reader, every entry's members,
// its name (contained, names a file, resolves inside the install, the same through the updater's short cut),
// the managed file made from it, its download name and its patch records. Nothing may crash, and no
// accepted name may lead outside the install.

#include <ZRVKit/ZRVBoundedJSON.h>
#include <ZRVKit/ZRVManagedFile.h>
#include <ZRVKit/ZRVURL.h>

#include "FuzzSupport.h"
#include "update/InstallPath.h"

#include <cstdlib>

namespace fs = std::filesystem;

namespace {

const std::string* text(const ZRVJSON& entry, const char* key) {
  auto found = entry.find(key);
  return found != entry.end() && found->is_string() ? &found->get_ref<const std::string&>() : nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ZRVJSONReading reading = ZRVBoundedJSON::read(data, size);
  if (!reading.document || !reading.document->is_object()) return 0;
  static const fs::path install = fuzz::scratchFolder() / "install";
  static const ZRVURL mirror = *ZRVURL::URLWithString("http://127.0.0.1:1/content/");
  zrv::update::InstallBoundary boundary(install);
  for (const auto& [name, entry] : reading.document->items()) {
    bool accepted = zrv::update::namesAFile(name) && zrv::update::resolvesInside(install, install / name);
    if (accepted && !zrv::update::isContainedName(name)) std::abort();
    // The updater's short cut must answer as resolving the whole location does.
    if (zrv::update::namesAFile(name) && boundary.resolvesInside(name) != accepted) std::abort();
    if (!entry.is_object()) continue;
    const std::string* hash = text(entry, "hash");
    const std::string* compHash = text(entry, "compHash");
    const std::string* download = text(entry, "dl");
    if (!hash || !compHash || !download || !accepted) continue;
    auto file = ZRVManagedFile::initWithFilename(name, install, *hash, *compHash, *download);
    if (!file) continue;
    if (auto decoded = ZRVURL::removingPercentEncoding(file->download())) (void)mirror.URLByAppendingPathComponent(*decoded);
    auto patches = entry.find("patches");
    if (patches == entry.end()) continue;
    if (auto patch = file->getPatch(*patches)) {
      if (const std::string* filename = text(*patch, "filename")) (void)mirror.URLByAppendingPathComponent(*filename);
    }
  }
  return 0;
}
