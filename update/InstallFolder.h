#pragma once
// Folders and temporary files inside the install folder, reached one name at a time from an opened folder
// and never through a link: a link planted where the library keeps its temporary files (".tmp", a folder
// of the game files, "Frameworks", a ".partial" file) is refused, so no write can land outside the install.

#include <ZRVKit/ZRVError.h>

#include "foundation/FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>

namespace zrv::update {

using Descriptor = zrv::FileDescriptor;

/// The folder `relative` below `base` (which itself may be a link: the launcher chose it), each name opened
/// without following a link. `create` makes missing folders (mode 0755). A link on the way is refused with
/// an error that says so; any other failure carries its POSIX error.
std::optional<Descriptor> openInstallFolder(const std::filesystem::path& base, const std::filesystem::path& relative,
                                            bool create, std::optional<ZRVError>* error = nullptr);

/// The same below an opened folder; `shownBase` names it in errors.
std::optional<Descriptor> openFolderBelow(int folder, const std::filesystem::path& relative, bool create,
                                          const std::filesystem::path& shownBase, std::optional<ZRVError>* error = nullptr);

/// A fresh name for a temporary file beside `name`: ".NAME.PID.N.partial". A run clears such names that a
/// process no longer running left behind.
std::string temporaryNameFor(const std::string& name);

/// Creates the new file `name` (a single name) in `folder`, exclusively and without following a link;
/// opened for reading and writing. A leftover of that name (file or link) is removed first when `replace`.
std::optional<Descriptor> createFileIn(int folder, const std::string& name, bool replace,
                                       const std::filesystem::path& shownPath, std::optional<ZRVError>* error = nullptr);

/// Creates a new temporary file for `forName` in `folder` under a fresh name (temporaryNameFor), which it
/// stores in `temporaryName`; a name that is taken (by anything, a link included) is passed over for the next.
std::optional<Descriptor> createTemporaryFileIn(int folder, const std::string& forName, std::string& temporaryName,
                                                const std::filesystem::path& shownFolder,
                                                std::optional<ZRVError>* error = nullptr);

/// The same for a new temporary folder.
bool createTemporaryFolderIn(int folder, const std::string& forName, std::string& temporaryName,
                             const std::filesystem::path& shownFolder, std::optional<ZRVError>* error = nullptr);

/// Puts the finished file `temporary` of `folder` in the place of `name` there, giving it the permission bits
/// of the file it replaces (an executable stays executable). A link at `name` is replaced, not followed.
bool replaceIn(int folder, const std::string& temporary, const std::string& name);

/// Writes `size` bytes to a temporary file in `folder` and puts it in the place of `name`; false (and the
/// temporary file gone) when any step fails.
bool writeFileAtomicallyIn(int folder, const std::string& name, const void* data, std::size_t size);

/// A file mapped read-only: its bytes are read from the file as they are used, not held by the process, so a
/// patch that decompressed to a large file costs no memory of its own.
class MappedFile {
 public:
  /// The whole file `fd`; an empty file maps to no bytes. Nothing when it cannot be mapped.
  static std::optional<MappedFile> map(int fd);
  MappedFile(MappedFile&& other) noexcept;
  MappedFile& operator=(MappedFile&&) = delete;
  MappedFile(const MappedFile&) = delete;
  ~MappedFile();

  const std::uint8_t* data() const { return static_cast<const std::uint8_t*>(address_); }
  std::size_t size() const { return size_; }
  /// Lets go of the pages read so far: they no longer count as the process's memory and are read from the
  /// file again if used again. Reading a large file through the mapping calls this now and then.
  void releasePages() const;

 private:
  MappedFile(void* address, std::size_t size) : address_(address), size_(size) {}
  void* address_ = nullptr;
  std::size_t size_ = 0;
};

/// The error for a link found where the library keeps its own files.
ZRVError linkRefused(const std::filesystem::path& path);

}  // namespace zrv::update
