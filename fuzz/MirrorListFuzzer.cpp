// Fuzzes a mirror list: the bounded JSON reader, then the list's URLs in order. Every URL kept must be one
// that the URL type accepts, and appending a file name to it must not crash.

#include <ZRVKit/ZRVBoundedJSON.h>

#include "FuzzSupport.h"
#include "update/MirrorList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ZRVJSONReading reading = ZRVBoundedJSON::read(data, size);
  if (!reading.document) return 0;
  for (const ZRVURL& mirror : zrv::update::mirrorURLsFromList(*reading.document)) {
    (void)mirror.URLByAppendingPathComponent("files/game.bin.bz2");
  }
  return 0;
}
