#pragma once
// The library's byte buffer: downloads, patches, file contents.

#include <cstdint>
#include <vector>

using ZRVData = std::vector<std::uint8_t>;
