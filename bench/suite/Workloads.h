#pragma once
// The data the benchmark works on, each made by a child mode of the harness (`zrv_bench --make-... ARGS`),
// so that the harness itself stays small (see Child.h).

#include <string>
#include <vector>

/// Runs the child mode named by argv[1] if it is one; its exit status, or -1 when argv names none.
int runWorkloadMode(int argc, char** argv);

/// A 48 MiB game-like asset pack and its next version (scattered edits, a block inserted, one deleted).
inline constexpr const char* kMakePatchPair = "--make-patch-pair";  // OLD NEW
/// The library's bzip2-to-file of one file, read into memory first as its callers do.
inline constexpr const char* kDecode = "--decode";  // IN.bz2 OUT
/// The library's bzip2-to-file of every IN_DIR/*.bz2 into OUT_DIR, one file after another.
inline constexpr const char* kDecodeEach = "--decode-each";  // IN_DIR OUT_DIR
/// 1,000 files in 10 folders, each 100 KiB of noise and 30 KiB of text.
inline constexpr const char* kMakeUnzipTree = "--make-unzip-tree";  // DIR
/// A published tree whose manifest names COUNT tiny files, and an install holding all of them up to date.
inline constexpr const char* kMakeManifest = "--make-manifest";  // COUNT OUT INSTALL
