#pragma once
// The publisher's side of binary patches: a patch in the bsdiff 4.0 format that turns one file into another.
// "BSDIFF40" stores the control, diff and extra streams bzip2-compressed, "BSDIFN40" stores them raw.

#include <ZRVKit/ZRVData.h>

/// A patch that turns `oldData` into `newData`, "BSDIFN40" when `raw`, else "BSDIFF40".
/// Throws std::length_error for files of 2 GiB or more.
ZRVData makePatch(const ZRVData& oldData, const ZRVData& newData, bool raw);
