#include "ZipTestSupport.h"

#include <fcntl.h>
#include <minizip/zip.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

void craftArchive(const fs::path& archive, const std::vector<CraftedEntry>& entries) {
  zipFile zip = zipOpen(archive.c_str(), APPEND_STATUS_CREATE);
  ASSERT_NE(zip, nullptr);
  for (const CraftedEntry& entry : entries) {
    zip_fileinfo info{};
    info.dosDate = entry.dosDate;
    info.external_fa = entry.externalAttributes;
    ASSERT_EQ(zipOpenNewFileInZip(zip, entry.name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr, entry.method,
                                  entry.method == 0 ? 0 : Z_DEFAULT_COMPRESSION),
              ZIP_OK);
    ASSERT_EQ(zipWriteInFileInZip(zip, entry.data.data(), static_cast<unsigned>(entry.data.size())), ZIP_OK);
    ASSERT_EQ(zipCloseFileInZip(zip), ZIP_OK);
  }
  ASSERT_EQ(zipClose(zip, nullptr), ZIP_OK);
}

int runCommand(const std::string& commandLine) {
  int status = std::system(commandLine.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string quoted(const fs::path& path) {
  std::string text = "'";
  for (char c : path.string()) text += (c == '\'') ? std::string("'\\''") : std::string(1, c);
  return text + "'";
}

std::vector<std::string> describeTree(const fs::path& root) {
  std::vector<std::string> lines;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
    struct stat info {};
    lstat(entry.path().c_str(), &info);
    std::ostringstream line;
    line << entry.path().lexically_relative(root).generic_string() << ": ";
    if (S_ISLNK(info.st_mode)) {
      line << "link -> " << fs::read_symlink(entry.path()).string();
    } else {
      line << (S_ISDIR(info.st_mode) ? "dir " : "file ") << std::oct << (info.st_mode & 07777) << std::dec << " "
           << info.st_mtim.tv_sec;
      if (S_ISREG(info.st_mode)) {
        std::ifstream file(entry.path(), std::ios::binary);
        line << " " << std::string(std::istreambuf_iterator<char>(file), {});
      }
    }
    lines.push_back(line.str());
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::time_t localTime(int year, int month, int day, int hour, int minute, int second) {
  std::tm local{};
  local.tm_year = year - 1900;
  local.tm_mon = month - 1;
  local.tm_mday = day;
  local.tm_hour = hour;
  local.tm_min = minute;
  local.tm_sec = second;
  local.tm_isdst = -1;
  return std::mktime(&local);
}

void setModificationTime(const fs::path& path, std::time_t seconds) {
  const timespec times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

std::time_t modificationTime(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(lstat(path.c_str(), &info), 0) << path;
  return info.st_mtim.tv_sec;
}

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
