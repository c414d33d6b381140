#pragma once
// The data of the large-file row, made in one pass without holding the file in memory: an old and a new
// version of one game file of SIZE MiB (the new one with a few bytes changed), the new one's place in a
// published tree (its bzip2 is made by the caller), and a "BSDIFF40" patch old → new written directly (one
// control triple over the whole file, a diff stream of zeros but for the changes, no extra bytes): a general
// diff of a 2 GiB file needs far more memory than this machine has.
//
//   zrv_bench --make-large SIZE_MIB OLD NEW TREE     writes OLD, NEW, TREE/content/patches/big.dat.<old>.bz2
//   zrv_bench --large-manifest OLD NEW TREE          writes TREE/content/patchmanifest.txt (after NEW.bz2 is
//                                                    in TREE/content/files/big.dat.bz2)

inline constexpr const char* kMakeLarge = "--make-large";
inline constexpr const char* kLargeManifest = "--large-manifest";

/// The child modes; their exit status, or -1 when argv names neither.
int runLargeFileMode(int argc, char** argv);
