#pragma once
// Extensions of the byte-buffer, string and file-location types: digests, substring test, range-checked
// slices and bzip2 decompression into a file.

#include <ZRVKit/ZRVData.h>
#include <ZRVKit/ZRVError.h>
#include <ZRVKit/ZRVKitExport.h>

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace ZRVExtensions {

/// SHA-1 of the bytes as 40 lower-case hexadecimal characters.
ZRVKIT_EXPORT std::string sha1Hash(const ZRVData& data);
ZRVKIT_EXPORT std::string sha1Hash(const std::uint8_t* bytes, std::size_t length);
/// SHA-1 of a file's contents as above; "" when the file cannot be read.
ZRVKIT_EXPORT std::string sha1Hash(const std::filesystem::path& file);
/// SHA-1 of the contents of the open file `fd` from its start, read in pieces; "" when it cannot be read.
ZRVKIT_EXPORT std::string sha1HashOfDescriptor(int fd);

/// SHA-1 of a string's UTF-8 text, cut to as many bytes as the text has UTF-16 code units. For ASCII that is
/// the whole text; for other text a prefix. Stored identifiers depend on this rule.
ZRVKIT_EXPORT std::string ac_sha1(std::string_view utf8);

/// Number of UTF-16 code units of a UTF-8 text (a malformed byte counts as one unit).
ZRVKIT_EXPORT std::size_t utf16Length(std::string_view utf8);

/// True when `needle` occurs in `haystack`; an empty needle gives false.
ZRVKIT_EXPORT bool containsString(std::string_view haystack, std::string_view needle);

/// `length` bytes of `data` from `offset`, or std::out_of_range when that runs past the end.
ZRVKIT_EXPORT ZRVData subdata(const ZRVData& data, std::size_t offset, std::size_t length);

/// Decompresses a bzip2 stream into `destination`. See the implementation for the deliberate treatment of
/// damaged input (it counts as success; the callers' digests catch it). Output beyond 8 GiB, which no game
/// file comes near, fails like a write failure: false, domain "BZip2", code EFBIG.
ZRVKIT_EXPORT bool decompressBZIP2CompressedDataToURL(const ZRVData& data,
                                                      const std::filesystem::path& destination,
                                                      std::optional<ZRVError>* error = nullptr);

}  // namespace ZRVExtensions
