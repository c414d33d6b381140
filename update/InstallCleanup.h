#pragma once
// What a run of the library killed half-way leaves in the install folder, cleared by the next run: only names
// of the library's own temporary patterns, and never through a link.

#include <filesystem>
#include <string>

namespace zrv::update {

/// Removes, anywhere below `install` (links are not entered):
///  - ".NAME.PID.N.partial" files and folders whose process is gone (a live one may be another run's);
///  - per-folder ".tmp" folders of the patch step;
///  - ".NAME.XXXXXX" files beside a NAME, left by earlier versions of the atomic write (not touched for a minute);
///  - "Frameworks/Cg.framework.zip", the framework archive of an interrupted unpacking.
/// Returns how many entries it removed.
std::size_t clearLeftovers(const std::filesystem::path& install);

/// Removes `name` in `folder` with everything below it, without following any link (a link is removed itself).
bool removeTreeIn(int folder, const std::string& name);

}  // namespace zrv::update
