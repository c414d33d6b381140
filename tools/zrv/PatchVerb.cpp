// zrv patch: applies a binary patch through the library, the way a game update does: the new file is
// written as it is made, not held.

#include "Arguments.h"
#include "FileContents.h"
#include "Verbs.h"

#include <ZRVKit/ZRVException.h>
#include <ZRVKit/bsdiff.h>

#include <iostream>
#include <stdexcept>

int runPatch(const std::vector<std::string>& words) {
  Arguments arguments(words, {}, {});
  arguments.expectPositional(3, 3);
  const auto& paths = arguments.positional();
  MappedFileContents old(paths[0]);
  MappedFileContents patch(paths[1]);
  try {
    // The new file goes straight to disk through a small buffer: a game file need not fit in memory twice.
    writeFileWith(paths[2], [&](int descriptor) {
      return bsdiff::writePatchedFile(old.data(), old.size(), patch.data(), patch.size(), descriptor);
    });
  } catch (const ZRVException& failure) {
    std::cerr << "zrv patch: " << failure.name() << ": " << failure.reason() << "\n";
    return kExitFailure;
  } catch (const std::out_of_range& failure) {
    std::cerr << "zrv patch: the patch is truncated (" << failure.what() << ")\n";
    return kExitFailure;
  }
  return kExitSuccess;
}
