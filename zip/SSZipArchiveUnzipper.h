#pragma once
// One unpacking of one archive: the entry loop, the per-entry work and the final pass over folder dates.

#include "zip/ZipDestination.h"
#include "zip/ZipEntryReader.h"

#include <ZRVKit/SSZipArchive.h>

#include <sys/stat.h>
#include <sys/types.h>

namespace zrv::zip {

class SSZipArchiveUnzipper {
 public:
  SSZipArchiveUnzipper(const std::filesystem::path& path, const std::filesystem::path& destination, bool overwrite,
                       const std::optional<std::string>& password, const SSZipArchiveDelegate& delegate);

  bool run(std::optional<ZRVError>* error);

 private:
  enum class Outcome {
    unpacked,    ///< written (or passed over with a log line)
    skipped,     ///< already there and overwrite is off
    refused,     ///< would have left the destination; logged
    failed,      ///< could not be written; logged
    readFailed,  ///< the archive's data could not be read: the loop ends
  };

  /// Written files and folder entries, dated again at the end (folders also get their permissions then,
  /// so that a read-only folder does not stop its own contents from being written).
  struct Remembered {
    ZipDestination::Parts parts;
    SSZipArchive::Date date;
    bool isDirectory;
    mode_t mode;  ///< 0: leave the permissions alone
  };

  Outcome unpackCurrentEntry(const unz_file_info64& info, const std::string& name);
  Outcome unpackLink(const unz_file_info64& info, const std::string& name, const ZipDestination::Parts& parts, int folder);
  Outcome unpackFile(const unz_file_info64& info, const std::string& name, const ZipDestination::Parts& parts,
                     int folder, bool exists, const struct ::stat& existing);
  Outcome refuse(const std::string& name, std::string_view reason);
  Outcome fail(const std::filesystem::path& path, int errorNumber);
  void setRememberedAttributes();

  std::filesystem::path path_;
  std::filesystem::path destinationPath_;
  std::optional<ZipDestination> destinationFolder_;  ///< opened (and created) once the archive has entries
  const ZipDestination& destination() const { return *destinationFolder_; }
  bool overwrite_;
  std::optional<std::string> password_;
  const SSZipArchiveDelegate& delegate_;
  unzFile zip_ = nullptr;
  std::unique_ptr<ZipEntryReader> reader_;  ///< the open entry
  std::vector<Remembered> remembered_;
  std::vector<char> buffer_;
};

}  // namespace zrv::zip
