#pragma once
// Runs a shell command line the way a user types it and keeps what it printed.

#include <filesystem>
#include <string>

struct ShellOutcome {
  int status = -1;     ///< the exit status; -1 when the command could not run or was killed
  std::string output;  ///< its standard output (redirect 2>&1 inside the command to keep the rest)
};

ShellOutcome runShellCommand(const std::string& commandLine);

/// Runs the zrv at `tool` in `home` as its home (data and cache folders, file secret store, no server from the
/// environment), with `input` on standard input; the output holds both streams.
ShellOutcome runZrv(const std::string& tool, const std::filesystem::path& home, const std::string& arguments,
                    const std::string& input = "");
