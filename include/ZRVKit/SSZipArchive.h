#pragma once
// Unpacks zip archives into a folder and writes zip archives from files, folders and byte buffers (minizip).
//
// Unpacking never writes outside the destination: entries whose names are absolute or climb out with "..",
// entries that would be written through a symbolic link, and links that would point out of the destination
// are refused (logged, the other entries still unpacked, the result false). Set-user-ID, set-group-ID and
// sticky bits are never restored.
//
// Archives of any size are read and written: entries of 4 GiB and more and more than 65,535 entries get the
// format's 64-bit fields, which Info-ZIP, 7-Zip and Python's zipfile read. Entries are streamed in chunks, so
// memory stays small whatever their size.

#include <ZRVKit/ZRVData.h>
#include <ZRVKit/ZRVError.h>
#include <ZRVKit/ZRVKitExport.h>

#include <minizip/unzip.h>
#include <minizip/zip.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zrv::zip {
class SSZipArchiveUnzipper;  // the library's own unpacking, which reads the private date conversion
}

/// The unpack delegate: each callback is optional and called only when set.
struct ZRVKIT_EXPORT SSZipArchiveDelegate {
  std::function<void(const std::filesystem::path& path, const unz_global_info& zipInfo)>
      zipArchiveWillUnzipArchiveAtPath;
  std::function<void(long fileIndex, long totalFiles, const std::filesystem::path& archivePath,
                     const unz_file_info& fileInfo)>
      zipArchiveWillUnzipFileAtIndex;
  std::function<void(long fileIndex, long totalFiles, const std::filesystem::path& archivePath,
                     const unz_file_info& fileInfo)>
      zipArchiveDidUnzipFileAtIndex;
  std::function<void(const std::filesystem::path& path, const unz_global_info& zipInfo,
                     const std::filesystem::path& unzippedPath)>
      zipArchiveDidUnzipArchiveAtPath;
};

class ZRVKIT_EXPORT SSZipArchive {
 public:
  static constexpr std::string_view kErrorDomain = "SSZipArchiveErrorDomain";
  static constexpr long kErrorFailedToOpenZipFile = -1;
  static constexpr long kErrorFailedToOpenFirstFile = -2;

  using Date = std::chrono::system_clock::time_point;

  // Unpacking. Each returns whether every entry was unpacked; the error is only set for the two opening
  // failures, and only when asked for.
  static bool unzipFileAtPath(const std::filesystem::path& path, const std::filesystem::path& destination);
  static bool unzipFileAtPath(const std::filesystem::path& path, const std::filesystem::path& destination,
                              const SSZipArchiveDelegate& delegate);
  static bool unzipFileAtPath(const std::filesystem::path& path, const std::filesystem::path& destination,
                              bool overwrite, const std::optional<std::string>& password,
                              std::optional<ZRVError>* error);
  static bool unzipFileAtPath(const std::filesystem::path& path, const std::filesystem::path& destination,
                              bool overwrite, const std::optional<std::string>& password,
                              std::optional<ZRVError>* error, const SSZipArchiveDelegate& delegate);

  // Writing whole archives at once.
  static bool createZipFileAtPath(const std::filesystem::path& path, const std::vector<std::filesystem::path>& paths);
  /// Every regular file below `directory`, named by its path relative to it; folders get no entries.
  /// A linked file is archived with the contents it links to (as Info-ZIP's `zip -r` does), and a link to a
  /// folder is followed, except into a folder the walk is already inside (a link to the folder itself or a
  /// parent, or a ring of links), which is passed over so that the walk ends. Dates before 1980 are archived
  /// as 1980-01-01 00:00, the earliest a zip entry can say.
  static bool createZipFileAtPath(const std::filesystem::path& path, const std::filesystem::path& directory);

  /// A writer for the archive at `path` (initWithPath:); nothing happens before open().
  explicit SSZipArchive(std::filesystem::path path);
  ~SSZipArchive();
  SSZipArchive(const SSZipArchive&) = delete;
  SSZipArchive& operator=(const SSZipArchive&) = delete;

  /// Creates the archive, replacing an existing file.
  bool open();
  /// Adds the file under its last path component.
  bool writeFile(const std::filesystem::path& path);
  /// Adds the file under `fileName` (its last path component when absent), with its date and permissions.
  bool writeFileAtPath(const std::filesystem::path& path, const std::optional<std::string>& fileName);
  /// Adds one entry holding `data`, dated now, readable by everyone and writable by the owner (0644); a name
  /// ending in "/" is a folder entry (0755). False when the data is absent or the archive is not open.
  bool writeData(const std::optional<ZRVData>& data, const std::string& filename);
  /// Finishes the archive.
  bool close();

  /// Fills minizip's date record from `date` in the local time zone.
  static void zipInfo(tm_zip& info, Date date);

 private:
  friend class zrv::zip::SSZipArchiveUnzipper;

  /// A DOS date-time (local time, seconds halved) as a point in time.
  static Date _dateWithMSDOSFormat(unsigned long msdosDateTime);

  bool writeEntry(const std::string& name, Date date, unsigned long externalAttributes, bool large,
                  const std::function<bool()>& writeContents);

  std::filesystem::path path_;
  zipFile zip_ = nullptr;
  bool hasZip64Entries_ = false;  ///< whose directory records minizip marks as made on MS-DOS
};
