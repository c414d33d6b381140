#pragma once
// minizip 1.1 writes the Zip64 end record only for a directory of entries that starts beyond 4 GiB. An
// archive of 65,535 entries or more also needs it: the classic end record then says 0xFFFF, which means
// "see the Zip64 end record", and Info-ZIP and 7-Zip reject the archive when there is none. And it marks the
// directory records of entries with Zip64 fields as made on MS-DOS, whatever the caller said.

#include <filesystem>

namespace zrv::zip {

/// Adds the Zip64 end record and its locator in front of the end record of the finished archive at `archive`
/// (written without comment) when its entry count needs them and they are not there, and, when it has entries
/// with Zip64 fields, gives them back the "made by" Unix that minizip 1.1 overwrites for them. False when the
/// archive's end cannot be read or written.
bool completeZip64Fields(const std::filesystem::path& archive, bool hasZip64Entries);

}  // namespace zrv::zip
