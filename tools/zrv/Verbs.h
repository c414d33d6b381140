#pragma once
// The verbs of the zrv command. Each lives in a file of its own and is listed once in Verbs.cpp.

#include <string>
#include <vector>

/// Exit codes are an interface: scripts and launchers depend on them.
enum ExitCode : int {
  kExitSuccess = 0,      ///< done; for `status`: the servers are online
  kExitFailure = 1,      ///< the operation failed; for `status`: the servers are offline
  kExitUsage = 2,        ///< the command line is wrong
  kExitUnreachable = 3,  ///< a server could not be reached or did not answer usefully
};

struct Verb {
  std::string name;
  std::string usage;    ///< "status [--json]"
  std::string summary;  ///< one line for `zrv --help`
  std::string help;     ///< the rest of `zrv VERB --help`
  int (*run)(const std::vector<std::string>& words);
};

const std::vector<Verb>& allVerbs();

int runStatus(const std::vector<std::string>& words);
int runServe(const std::vector<std::string>& words);
int runDemo(const std::vector<std::string>& words);
int runUpdate(const std::vector<std::string>& words);
int runPublish(const std::vector<std::string>& words);
int runDiff(const std::vector<std::string>& words);
int runPatch(const std::vector<std::string>& words);
int runLogin(const std::vector<std::string>& words);
int runLogins(const std::vector<std::string>& words);
int runInvasions(const std::vector<std::string>& words);
int runOptions(const std::vector<std::string>& words);
int runUnzip(const std::vector<std::string>& words);
int runZip(const std::vector<std::string>& words);
int runLaunch(const std::vector<std::string>& words);
int runPlay(const std::vector<std::string>& words);
