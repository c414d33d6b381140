#include "Child.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace {

pid_t spawn(const std::vector<std::string>& argv, const std::string& output) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.empty() ? "/dev/null" : output.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::vector<char*> words;
  for (const auto& word : argv) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  pid_t child = 0;
  int failed = posix_spawnp(&child, words[0], &actions, nullptr, words.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failed) throw std::runtime_error("cannot start " + argv[0]);
  return child;
}

std::string described(const std::vector<std::string>& argv) {
  std::string text;
  for (const auto& word : argv) text += (text.empty() ? "" : " ") + word;
  return text.size() > 300 ? text.substr(0, 300) + "..." : text;
}

}  // namespace

ChildRun runChild(const std::vector<std::string>& argv, const std::string& output) {
  auto start = std::chrono::steady_clock::now();
  pid_t child = spawn(argv, output);
  int status = 0;
  rusage usage{};
  while (wait4(child, &status, 0, &usage) < 0) {
  }
  ChildRun run;
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.processorSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  run.peakKiB = usage.ru_maxrss;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error("failed: " + described(argv));
  return run;
}

ChildRun runShell(const std::string& script, const std::string& output) {
  return runChild({"bash", "-c", "set -euo pipefail; " + script}, output);
}

pid_t startChild(const std::vector<std::string>& argv, const std::string& output) { return spawn(argv, output); }

void stopChild(pid_t child) {
  if (child <= 0) return;
  kill(child, SIGTERM);
  int status = 0;
  waitpid(child, &status, 0);
}

std::string quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}
