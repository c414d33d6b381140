#include "ZipPeers.h"

#include "ZipTestSupport.h"

namespace fs = std::filesystem;

namespace {

const char* const kQuiet = " > /dev/null 2>&1";

int infoZipArchive(const fs::path& archive, const fs::path& folder) {
  return runCommand("cd " + quoted(folder) + " && zip -qr -1 " + quoted(fs::absolute(archive)) + " ." + kQuiet);
}
int infoZipTest(const fs::path& archive) { return runCommand("unzip -tq " + quoted(archive) + kQuiet); }
int infoZipExtract(const fs::path& archive, const fs::path& destination) {
  return runCommand("unzip -qo " + quoted(archive) + " -d " + quoted(destination) + kQuiet);
}

int sevenZipArchive(const fs::path& archive, const fs::path& folder) {
  return runCommand("cd " + quoted(folder) + " && 7z a -tzip -mx=1 -bd " + quoted(fs::absolute(archive)) + " ." +
                    kQuiet);
}
int sevenZipTest(const fs::path& archive) { return runCommand("7z t -bd " + quoted(archive) + kQuiet); }
int sevenZipExtract(const fs::path& archive, const fs::path& destination) {
  return runCommand("7z x -y -bd -o" + quoted(destination) + " " + quoted(archive) + kQuiet);
}

// zipfile turns on its 64-bit fields by itself for files that need them.
int pythonArchive(const fs::path& archive, const fs::path& folder) {
  return runCommand(
      "python3 -c 'import os, sys, zipfile\n"
      "with zipfile.ZipFile(sys.argv[1], \"w\", zipfile.ZIP_DEFLATED, compresslevel=1) as archive:\n"
      "    for folder, folders, files in os.walk(sys.argv[2]):\n"
      "        for name in sorted(files):\n"
      "            path = os.path.join(folder, name)\n"
      "            archive.write(path, os.path.relpath(path, sys.argv[2]))\n' " +
      quoted(archive) + " " + quoted(folder) + kQuiet);
}
int pythonTest(const fs::path& archive) {
  return runCommand(
      "python3 -c 'import sys, zipfile\n"
      "with zipfile.ZipFile(sys.argv[1]) as archive:\n"
      "    sys.exit(0 if archive.testzip() is None else 1)\n' " +
      quoted(archive) + kQuiet);
}
int pythonExtract(const fs::path& archive, const fs::path& destination) {
  return runCommand("python3 -m zipfile -e " + quoted(archive) + " " + quoted(destination) + kQuiet);
}

}  // namespace

const std::vector<ZipPeer>& zipPeers() {
  static const std::vector<ZipPeer> peers{
      {"Info-ZIP", infoZipArchive, infoZipTest, infoZipExtract},
      {"7-Zip", sevenZipArchive, sevenZipTest, sevenZipExtract},
      {"Python zipfile", pythonArchive, pythonTest, pythonExtract},
  };
  return peers;
}

bool sameContents(const fs::path& one, const fs::path& other) {
  return runCommand("cmp -s " + quoted(one) + " " + quoted(other)) == 0;
}
