// zrv: the reference launcher and developer tool of ZRVKit.

#include "Arguments.h"
#include "Verbs.h"

#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVLog.h>
#include <ZRVKit/ZRVURL.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

namespace {

void printHelp() {
  std::cout << "usage: zrv [--server URL] [--verbose] VERB [ARGUMENTS]\n\n"
               "The reference launcher and developer tool of ZRVKit.\n\nVerbs:\n";
  for (const Verb& verb : allVerbs()) {
    std::string usage = "  " + verb.usage;
    usage.resize(std::max<std::size_t>(usage.size() + 2, 44), ' ');
    std::cout << usage << verb.summary << "\n";
  }
  std::cout << "\nGlobal options:\n"
               "  --server URL   send every request to URL instead of the game's hosts\n"
               "                 (also the ZRV_SERVER environment variable)\n"
               "  --verbose      copy the library's log lines to standard error\n"
               "  --help         this text; `zrv VERB --help` describes one verb\n\n"
               "Exit status: 0 success, 1 failure, 2 bad command line, 3 server unreachable.\n";
}

void printVerbHelp(const Verb& verb) { std::cout << "usage: zrv " << verb.usage << "\n\n" << verb.help << "\n"; }

bool setServer(const std::string& address) {
  auto url = ZRVURL::URLWithString(address);
  if (!url || url->empty() || (url->scheme() != "http" && url->scheme() != "https")) {
    std::cerr << "zrv: --server needs an http or https URL, not \"" << address << "\"\n";
    return false;
  }
  ZRVHosts::setRedirect(address);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  std::optional<std::string> server;
  if (const char* fromEnvironment = std::getenv("ZRV_SERVER"); fromEnvironment && *fromEnvironment) {
    server = fromEnvironment;
  }

  // Global options may stand anywhere before "--".
  std::vector<std::string> rest;
  bool verbose = false;
  bool help = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (word == "--") {
      rest.insert(rest.end(), words.begin() + static_cast<std::ptrdiff_t>(i), words.end());
      break;
    }
    if (word == "--server") {
      if (i + 1 >= words.size()) {
        std::cerr << "zrv: --server needs a URL\n";
        return kExitUsage;
      }
      server = words[++i];
    } else if (word.rfind("--server=", 0) == 0) {
      server = word.substr(9);
    } else if (word == "--verbose" || word == "-v") {
      verbose = true;
    } else if (word == "--help" || word == "-h") {
      help = true;
    } else {
      rest.push_back(word);
    }
  }

  if (rest.empty()) {
    printHelp();
    return help ? kExitSuccess : kExitUsage;
  }
  if (rest[0] == "help" || rest[0] == "--version") {
    if (rest[0] == "--version") {
      std::cout << "zrv " << ZRVKIT_VERSION << "\n";
    } else {
      printHelp();
    }
    return kExitSuccess;
  }

  const Verb* verb = nullptr;
  for (const Verb& candidate : allVerbs()) {
    if (candidate.name == rest[0]) verb = &candidate;
  }
  if (!verb) {
    std::cerr << "zrv: unknown verb \"" << rest[0] << "\"; `zrv --help` lists them\n";
    return kExitUsage;
  }
  if (help) {
    printVerbHelp(*verb);
    return kExitSuccess;
  }
  if (server && !setServer(*server)) return kExitUsage;
  ZRVLog::setEchoToStandardError(verbose);

  try {
    return verb->run(std::vector<std::string>(rest.begin() + 1, rest.end()));
  } catch (const UsageError& error) {
    std::cerr << "zrv " << verb->name << ": " << error.what() << "\nusage: zrv " << verb->usage << "\n";
    return kExitUsage;
  } catch (const std::exception& error) {
    std::cerr << "zrv " << verb->name << ": " << error.what() << "\n";
    return kExitFailure;
  }
}
