#pragma once
// Replacing a file whole: readers (the game, another launcher) see the old contents or the new, never a
// mixture, and a link standing at the file's place is replaced rather than written through.

#include <cstddef>
#include <filesystem>

namespace zrv {

/// Writes `size` bytes to a new file beside `destination`, then puts it in `destination`'s place with
/// replaceFile. An existing file's permission bits are kept; a new file gets 0644.
bool writeFileAtomically(const std::filesystem::path& destination, const void* data, std::size_t size);

/// Renames `replacement` (a finished file in the same folder) over `destination`, giving it the permission
/// bits of the file it replaces, so that an executable stays executable. False when the rename fails.
bool replaceFile(const std::filesystem::path& replacement, const std::filesystem::path& destination);

}  // namespace zrv
