#pragma once
// The folder an archive is unpacked into, reached only through real folders: every step below the root is
// opened relative to its parent without following symbolic links, so no entry can land outside the root.

#include "foundation/FileDescriptor.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zrv::zip {

using UniqueFileDescriptor = zrv::FileDescriptor;

class ZipDestination {
 public:
  using Parts = std::vector<std::string>;

  /// Opens `root`, creating it with its parents when missing. The root itself may be reached through links:
  /// the caller chose it.
  explicit ZipDestination(const std::filesystem::path& root);

  /// 0 when the root is open, else the errno of the failure.
  int openError() const { return openError_; }
  const std::filesystem::path& root() const { return root_; }

  /// The parts of an entry name below the root ("\" counts as "/"; empty and "." parts are dropped), or the
  /// reason it is refused: absolute, climbing with "..", or holding a NUL character.
  static std::optional<Parts> partsOfName(std::string_view name, std::string& reason);

  /// True when a link placed in the folder `depth` levels below the root, with this target, stays inside the
  /// root: relative, without NUL, climbing only with leading ".." parts and never above the root. Leading
  /// climbs go through real folders only, so a later link named in the target cannot move the climb elsewhere.
  static bool isLinkTargetInside(std::string_view target, std::size_t depth);

  /// Opens the folder formed by the first `count` parts, creating missing folders when `create` is set.
  /// Fails (with errno set, ELOOP or ENOTDIR for a link on the way) rather than follow a link.
  UniqueFileDescriptor openFolder(const Parts& parts, std::size_t count, bool create) const;

  /// The full path of the parts, for log lines.
  std::filesystem::path pathOf(const Parts& parts) const;

 private:
  std::filesystem::path root_;
  UniqueFileDescriptor rootDescriptor_;
  int openError_ = 0;
};

}  // namespace zrv::zip
