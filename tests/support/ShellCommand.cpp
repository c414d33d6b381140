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

ShellOutcome runZrv(const std::string& tool, const std::filesystem::path& home, const std::string& arguments,
                    const std::string& input) {
  const std::string h = home.string();
  return runShellCommand("cd '" + h + "' && printf '%s' '" + input + "' | env HOME='" + h + "' XDG_DATA_HOME='" + h +
                         "/data' XDG_CACHE_HOME='" + h + "/cache' ZRV_SECRET_STORE=file ZRV_SERVER= " + tool + " " +
                         arguments + " 2>&1");
}
