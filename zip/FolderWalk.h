#pragma once
// The files an archive of a folder holds: every regular file below it, linked files included (with the
// linked file's contents, as Info-ZIP's `zip -r` stores them).
//
// A link to a folder is followed as well, except into a folder that the walk is already inside: a link to
// the folder itself or to one of its parents, or a ring of links, would otherwise never end. Such a link is
// passed over with a log line. Links that lead nowhere, and pipes, sockets and devices (a pipe would block
// the reader), have no contents to archive and are passed over too.

#include <filesystem>
#include <optional>
#include <vector>

namespace zrv::zip {

/// The files below `folder`, by their paths through `folder`, sorted; none when a folder cannot be read.
std::optional<std::vector<std::filesystem::path>> filesBelow(const std::filesystem::path& folder);

}  // namespace zrv::zip
