// The launcher's own reading of a patch manifest from the content host: parsing, keeping this platform's
// files, refusing names that would leave the install folder. Any input must end in a result, never a crash.

#include "flows/GameManifest.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto document = parseManifestDocument(ZRVData(data, data + size));
  if (!document) return 0;
  GameManifest game = gameFilesOf(*document, "darwin");
  for (const auto& file : game.files) {
    if (!staysInside(file.name)) __builtin_trap();  // a kept name always stays inside the install
  }
  return 0;
}
