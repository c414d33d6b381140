#pragma once
// The benchmark's one table: a row per goal, with the ratios zrv/peer of paired runs, the goal and whether
// this run met it.

#include <string>
#include <vector>

struct Row {
  std::string work;
  std::string peer;
  std::string pairs;
  std::string ratioMin;
  std::string ratioMedian;
  std::string goal;
  std::string met;   // "yes", "no", or "—" where there is no goal to meet
  std::string peak;  // "zrv / peer" in MiB
};

/// A number with `decimals` places.
std::string fixed(double value, int decimals = 2);
/// "yes" or "no".
std::string yesNo(bool met);
/// The peak memory cell: "12.3 / 4.5".
std::string peaks(double zrvMiB, double peerMiB);

/// The three load averages, as /proc/loadavg gives them.
std::string loadAverage();

/// Prints `rows` as a Markdown table to standard output.
void printTable(const std::vector<Row>& rows);
