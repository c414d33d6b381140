#include "support/ShellCommand.h"

#include <sys/wait.h>

#include <cstdio>

ShellOutcome runShellCommand(const std::string& commandLine) {
  ShellOutcome outcome;
  FILE* pipe = popen(commandLine.c_str(), "r");
  if (!pipe) return outcome;
  char buffer[4096];
  std::size_t count;
  while ((count = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) outcome.output.append(buffer, count);
  int status = pclose(pipe);
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return outcome;
}
