#include "support/BusyProcesses.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <thread>

extern char** environ;

BusyProcesses::BusyProcesses(unsigned count) {
  if (count == 0) count = std::max(1u, std::thread::hardware_concurrency());
  for (unsigned i = 0; i < count; ++i) {
    char shell[] = "/bin/sh";
    char option[] = "-c";
    char loop[] = "while :; do :; done";
    char* arguments[] = {shell, option, loop, nullptr};
    pid_t process = 0;
    if (posix_spawn(&process, shell, nullptr, nullptr, arguments, environ) == 0) processes_.push_back(process);
  }
}

BusyProcesses::~BusyProcesses() {
  for (pid_t process : processes_) ::kill(process, SIGKILL);
  for (pid_t process : processes_) ::waitpid(process, nullptr, 0);
}
