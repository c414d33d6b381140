#pragma once
// Whole files in and out of memory, for the verbs that work on local files.

#include <ZRVKit/ZRVData.h>

#include <filesystem>

/// The file's bytes; std::runtime_error naming the file when it cannot be read.
ZRVData readFileContents(const std::filesystem::path& file);
/// Replaces `file` with `contents` through a temporary file beside it, so a failure leaves no half-written file.
void writeFileContents(const std::filesystem::path& file, const ZRVData& contents);
