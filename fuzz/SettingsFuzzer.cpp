// Fuzzes the game's option file: the input is settings.json, loaded, read for the members to keep, and
// written back with one option changed. A file the game did not write is refused, never half-written over.

#include <ZRVKit/ZRVException.h>
#include <ZRVKit/ZRVOptionsManager.h>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::filesystem::path file = fuzz::scratchFolder() / "settings.json";
  fuzz::writeBytes(file, data, size);
  ZRVOptionsManager options(file);
  options.loadSettings();
  (void)options.initialSettings().dump();
  try {
    options.setEnableMusic(!options.isMusicEnabled());
  } catch (const ZRVException&) {
    // Refused: the file lacks the game's own sections.
  }
  return 0;
}
