// zrv unzip: unpacks an archive the way the launcher unpacks its frameworks.

#include "Arguments.h"
#include "Verbs.h"

#include <ZRVKit/SSZipArchive.h>

#include <iostream>
#include <string>

int runUnzip(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--no-overwrite", "--password-stdin"}, {"--password"});
  arguments.expectPositional(2, 2);
  const std::string& archive = arguments.positional()[0];
  const std::string& destination = arguments.positional()[1];
  std::optional<std::string> password = arguments.value("--password");
  if (arguments.flag("--password-stdin")) {
    if (password) throw UsageError("--password and --password-stdin exclude each other");
    std::string line;
    if (!std::getline(std::cin, line)) throw UsageError("--password-stdin: no line on standard input");
    if (!line.empty() && line.back() == '\r') line.pop_back();
    password = std::move(line);
  }

  std::optional<ZRVError> error;
  if (SSZipArchive::unzipFileAtPath(archive, destination, !arguments.flag("--no-overwrite"), password, &error)) {
    return kExitSuccess;
  }
  if (error) {
    std::cerr << "zrv unzip: " << archive << ": " << error->localizedDescription() << "\n";
  } else {
    std::cerr << "zrv unzip: " << archive
              << ": not every entry could be unpacked (damaged or refused entries, or a wrong password; --verbose tells which)\n";
  }
  return kExitFailure;
}
