#pragma once
// Whole files in and out of memory, for the verbs that work on local files.

#include <ZRVKit/ZRVData.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>

/// The file's bytes; std::runtime_error naming the file when it cannot be read.
ZRVData readFileContents(const std::filesystem::path& file);
/// A file mapped read-only for as long as this lives: its bytes without copying them (an empty file maps to
/// nothing). std::runtime_error naming the file when it cannot be read.
class MappedFileContents {
 public:
  explicit MappedFileContents(const std::filesystem::path& file);
  ~MappedFileContents();
  MappedFileContents(const MappedFileContents&) = delete;
  MappedFileContents& operator=(const MappedFileContents&) = delete;

  const std::uint8_t* data() const { return data_; }
  std::size_t size() const { return size_; }

 private:
  const std::uint8_t* data_ = nullptr;
  std::size_t size_ = 0;
};

/// Replaces `file` with `contents` through a temporary file beside it, so a failure leaves no half-written file.
void writeFileContents(const std::filesystem::path& file, const ZRVData& contents);
/// Replaces `file` with what `write` writes to the descriptor it is given (it answers 0, or the errno of a
/// failed write), through a temporary file beside it; whatever fails, including `write` throwing, leaves no
/// temporary file behind.
void writeFileWith(const std::filesystem::path& file, const std::function<int(int descriptor)>& write);
