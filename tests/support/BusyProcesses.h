#pragma once
// Other processes that keep the machine's processors busy for the life of the object: each is a shell in an
// endless loop, started by this object and ended by its process id when it goes.

#include <sys/types.h>

#include <cstddef>

#include <vector>

class BusyProcesses {
 public:
  /// One busy process per core when `count` is 0.
  explicit BusyProcesses(unsigned count = 0);
  ~BusyProcesses();
  BusyProcesses(const BusyProcesses&) = delete;
  BusyProcesses& operator=(const BusyProcesses&) = delete;

  std::size_t size() const { return processes_.size(); }

 private:
  std::vector<pid_t> processes_;
};
