// zrv publish: lays out a build for the content host, with patches from older builds.

#include "Arguments.h"
#include "Verbs.h"
#include "publish/Publisher.h"

#include <iostream>

int runPublish(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--quiet"}, {"--from", "--base-url", "--framework", "--only", "--mirror", "--jobs"});
  arguments.expectPositional(2, 2);
  PublishOptions options;
  options.newBuild = arguments.positional()[0];
  options.output = arguments.positional()[1];
  for (const auto& older : arguments.values("--from")) options.olderBuilds.emplace_back(older);
  if (auto base = arguments.value("--base-url")) options.baseURL = *base;
  options.mirrors = arguments.values("--mirror");
  if (auto framework = arguments.value("--framework")) {
    options.frameworkArchive = *framework;
  } else {
    std::cerr << "zrv publish: warning: no --framework given: the tree will not serve Cg.framework.zip, so a\n"
                 "  fresh install (a folder without Frameworks/Cg.framework) will fail to download and unpack it\n";
  }
  if (auto jobs = arguments.number("--jobs", 1, 1024)) options.workers = static_cast<unsigned>(*jobs);
  if (!arguments.values("--only").empty()) options.platforms = arguments.values("--only");
  if (!arguments.flag("--quiet")) {
    options.progress = [](const std::string& name, std::size_t patches) {
      std::cout << "  " << name << (patches ? " (+" + std::to_string(patches) + " patches)" : "") << "\n";
    };
  }
  PublishSummary summary = publishBuild(options);
  std::cout << "Published " << summary.files << " files and " << summary.patches << " patches to "
            << options.output.string() << "\n";
  return kExitSuccess;
}
