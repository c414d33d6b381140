// zrv zip: writes an archive from files, or from the contents of one folder.

#include "Arguments.h"
#include "Verbs.h"

#include <ZRVKit/SSZipArchive.h>

#include <filesystem>
#include <iostream>

namespace fs = std::filesystem;

int runZip(const std::vector<std::string>& words) {
  Arguments arguments(words, {}, {});
  arguments.expectPositional(2, static_cast<std::size_t>(-1));
  const fs::path archive = arguments.positional()[0];
  const std::vector<fs::path> paths(arguments.positional().begin() + 1, arguments.positional().end());

  bool written = false;
  if (paths.size() == 1 && fs::is_directory(paths[0])) {
    written = SSZipArchive::createZipFileAtPath(archive, paths[0]);
  } else {
    for (const fs::path& path : paths) {
      if (fs::is_directory(path)) throw UsageError("a folder must be the only PATH: " + path.string());
    }
    written = SSZipArchive::createZipFileAtPath(archive, paths);
  }
  if (written) return kExitSuccess;
  std::cerr << "zrv zip: " << archive.string() << ": the archive could not be written completely\n";
  return kExitFailure;
}
