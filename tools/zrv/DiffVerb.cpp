// zrv diff: makes a binary patch from an old and a new file (the publisher's side).

#include "Arguments.h"
#include "FileContents.h"
#include "Verbs.h"
#include "patchmaker/PatchMaker.h"

#include <iostream>

int runDiff(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--raw"}, {});
  arguments.expectPositional(3, 3);
  const auto& paths = arguments.positional();
  ZRVData patch = makePatch(readFileContents(paths[0]), readFileContents(paths[1]), arguments.flag("--raw"));
  writeFileContents(paths[2], patch);
  std::cout << "Wrote " << paths[2] << " (" << patch.size() << " bytes).\n";
  return kExitSuccess;
}
