#include "Ratios.h"

#include <algorithm>

std::vector<std::vector<ChildRun>> interleaved(int pairs, const std::vector<Contender>& contenders) {
  std::vector<std::vector<ChildRun>> rounds;
  for (int round = 0; round < pairs; ++round) {
    std::vector<ChildRun> runs;
    for (const auto& contender : contenders) {
      if (contender.prepare) contender.prepare();
      runs.push_back(contender.run());
    }
    rounds.push_back(runs);
  }
  return rounds;
}

double minimum(std::vector<double> values) { return values.empty() ? 0 : *std::min_element(values.begin(), values.end()); }

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  std::size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::vector<double> ratios(const std::vector<std::vector<ChildRun>>& rounds, std::size_t a, std::size_t b, bool processor) {
  std::vector<double> out;
  for (const auto& round : rounds) {
    double top = processor ? round[a].processorSeconds : round[a].seconds;
    double bottom = processor ? round[b].processorSeconds : round[b].seconds;
    out.push_back(bottom > 0 ? top / bottom : 0);
  }
  return out;
}

double peakMiB(const std::vector<std::vector<ChildRun>>& rounds, std::size_t index) {
  long most = 0;
  for (const auto& round : rounds) most = std::max(most, round[index].peakKiB);
  return static_cast<double>(most) / 1024.0;
}
