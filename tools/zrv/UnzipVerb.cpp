// zrv unzip: unpacks an archive the way the launcher unpacks its frameworks.

#include "Arguments.h"
#include "Verbs.h"

#include <ZRVKit/SSZipArchive.h>

#include <iostream>

int runUnzip(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--no-overwrite"}, {"--password"});
  arguments.expectPositional(2, 2);
  const std::string& archive = arguments.positional()[0];
  const std::string& destination = arguments.positional()[1];

  std::optional<ZRVError> error;
  if (SSZipArchive::unzipFileAtPath(archive, destination, !arguments.flag("--no-overwrite"),
                                    arguments.value("--password"), &error)) {
    return kExitSuccess;
  }
  if (error) {
    std::cerr << "zrv unzip: " << archive << ": " << error->localizedDescription() << "\n";
  } else {
    std::cerr << "zrv unzip: " << archive
              << ": not every entry could be unpacked (damaged, encrypted or refused entries; --verbose tells which)\n";
  }
  return kExitFailure;
}
