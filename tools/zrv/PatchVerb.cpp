// zrv patch: applies a binary patch through the library, the way a game update does.

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
  ZRVData old = readFileContents(paths[0]);
  ZRVData patch = readFileContents(paths[1]);
  ZRVData result;
  try {
    result = bsdiff::dataWithData(old, patch);
  } catch (const ZRVException& failure) {
    std::cerr << "zrv patch: " << failure.name() << ": " << failure.reason() << "\n";
    return kExitFailure;
  } catch (const std::out_of_range& failure) {
    std::cerr << "zrv patch: the patch is truncated (" << failure.what() << ")\n";
    return kExitFailure;
  }
  writeFileContents(paths[2], result);
  return kExitSuccess;
}
