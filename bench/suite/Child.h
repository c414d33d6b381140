#pragma once
// Contenders run as child processes and are measured the same way: wall time, processor time (user and
// system, the child's threads and its waited-for children included) and peak resident memory, all from
// wait4's resource usage of that child alone.
//
// The parent's own peak counts in a spawned child's peak (the child starts in the parent's memory and the
// kernel keeps that high-water mark across exec), so the harness holds no large buffers itself: generators
// and the library's decoders run as child processes too.

#include <sys/types.h>

#include <string>
#include <vector>

struct ChildRun {
  double seconds = 0;
  double processorSeconds = 0;
  long peakKiB = 0;
};

/// Runs `argv` to its end, its standard output to `output` when given (else to /dev/null). Throws
/// std::runtime_error when it cannot be started or does not exit with 0.
ChildRun runChild(const std::vector<std::string>& argv, const std::string& output = "");

/// `script` run by bash with pipefail.
ChildRun runShell(const std::string& script, const std::string& output = "");

/// Starts `argv` in the background (standard output to `output`, or /dev/null); stopped with stopChild.
pid_t startChild(const std::vector<std::string>& argv, const std::string& output = "");
/// Sends SIGTERM to `child` and waits for it.
void stopChild(pid_t child);

/// A path quoted for bash.
std::string quoted(const std::string& text);
