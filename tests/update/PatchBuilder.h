#pragma once
// Hand-made patches for the tests: a header and the three streams, raw or bzip2-compressed.

#include <ZRVKit/ZRVData.h>

#include <bzlib.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

struct Triple {
  std::int64_t add, copy, seek;
};

inline void appendField(ZRVData& out, std::int64_t value) {
  std::uint64_t magnitude = value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<std::uint8_t>(magnitude >> (8 * i)));
  if (value < 0) out.back() |= 0x80;
}

inline ZRVData bzip2(const ZRVData& input, int level = 9) {
  ZRVData output(input.size() + input.size() / 100 + 600);
  static char nothing;  // libbz2 refuses a null source even for no bytes
  char* source = input.empty() ? &nothing : const_cast<char*>(reinterpret_cast<const char*>(input.data()));
  auto length = static_cast<unsigned int>(output.size());
  if (BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(output.data()), &length,
                               source,
                               static_cast<unsigned int>(input.size()), level, 0, 0) != BZ_OK) {
    throw std::runtime_error("bzip2 compression failed");
  }
  output.resize(length);
  return output;
}

struct PatchParts {
  std::vector<Triple> triples;
  ZRVData diff;
  ZRVData extra;
  std::int64_t newSize = 0;

  ZRVData control() const {
    ZRVData out;
    for (const Triple& triple : triples) {
      appendField(out, triple.add);
      appendField(out, triple.copy);
      appendField(out, triple.seek);
    }
    return out;
  }

  /// The patch with the given streams behind a header; the stored lengths are those of the streams.
  static ZRVData assemble(const std::string& magic, const ZRVData& control, const ZRVData& diff, const ZRVData& extra,
                          std::int64_t newSize) {
    ZRVData patch(magic.begin(), magic.end());
    appendField(patch, static_cast<std::int64_t>(control.size()));
    appendField(patch, static_cast<std::int64_t>(diff.size()));
    appendField(patch, newSize);
    for (const ZRVData* stream : {&control, &diff, &extra}) patch.insert(patch.end(), stream->begin(), stream->end());
    return patch;
  }

  ZRVData raw() const { return assemble("BSDIFN40", control(), diff, extra, newSize); }
  ZRVData compressed() const { return assemble("BSDIFF40", bzip2(control()), bzip2(diff), bzip2(extra), newSize); }
};
