#pragma once
// Paired, interleaved measurements: each pair runs every contender once, one after the other, so that the
// machine's other work weighs on all of them alike; the ratio zrv/peer is taken within each pair.

#include "Child.h"

#include <functional>
#include <vector>

/// One contender: its run (and whatever must happen, untimed, before it).
struct Contender {
  std::function<void()> prepare;
  std::function<ChildRun()> run;
};

/// `pairs` rounds of every contender in turn; result[round][contender].
std::vector<std::vector<ChildRun>> interleaved(int pairs, const std::vector<Contender>& contenders);

double minimum(std::vector<double> values);
double median(std::vector<double> values);

/// The per-round ratio of contender `a`'s to contender `b`'s measure (`processor` time or wall time).
std::vector<double> ratios(const std::vector<std::vector<ChildRun>>& rounds, std::size_t a, std::size_t b,
                           bool processor = false);
/// The largest peak memory of contender `index` over the rounds, in MiB.
double peakMiB(const std::vector<std::vector<ChildRun>>& rounds, std::size_t index);
