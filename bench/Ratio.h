#pragma once

// Figures as ratios: ours and its raw limit are measured in turn, in the same run, since machines
// differ and are noisy. Used by the benchmark programs; single-threaded.

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace Bench {

template <class Action>
double secondsOf(Action action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The median over rounds of ours divided by theirs, measured back to back in each round.
template <class Ours, class Theirs>
double medianRatio(Ours ours, Theirs theirs) {
  constexpr size_t rounds = 15;
  ours();
  theirs();
  std::vector<double> ratios;
  for (size_t i = 0; i < rounds; ++i) {
    const double oursTook = secondsOf(ours);
    ratios.push_back(oursTook / secondsOf(theirs));
  }
  std::nth_element(ratios.begin(), ratios.begin() + rounds / 2, ratios.end());
  return ratios[rounds / 2];
}

// The table of figures that a benchmark program ends with.
class Figures {
 public:
  explicit Figures(const char* heading) {
    fmt::print("\n{:<56} {:>8}  {:>8}\n", heading, "is", "at most");
  }

  void add(const std::string& what, double value) { fmt::print("{:<56} {:>8.2f}\n", what, value); }
  void add(const std::string& what, double value, double atMost) {
    const bool holds = value <= atMost;
    missed_ = missed_ || !holds;
    fmt::print("{:<56} {:>8.2f}  {:>8}  {}\n", what, value, atMost, holds ? "holds" : "MISSED");
  }
  // The exit status of the program: 1 when a figure was missed.
  int exitStatus() const { return missed_ ? 1 : 0; }

 private:
  bool missed_ = false;
};

constexpr size_t lookupKeys = 1000;

// A register's name as long as they usually are.
inline std::string nameOf(size_t i) { return fmt::format("block{:03}_control_{}", i % 997, i); }

// `count` positions below `limit`, the same ones in every run.
inline std::vector<uint32_t> randomPositions(size_t count, size_t limit) {
  std::mt19937 random(1);
  std::vector<uint32_t> positions(count);
  for (uint32_t& position : positions) position = static_cast<uint32_t>(random() % limit);
  return positions;
}

// "One hit": a random hit in the hash map that everybody has, with 1 k strings and a ready key.
class OneHit {
 public:
  OneHit() {
    for (size_t i = 0; i < lookupKeys; ++i) map_.emplace(nameOf(i), static_cast<uint32_t>(i));
    for (const uint32_t position : randomPositions(lookupKeys, lookupKeys)) {
      keys_.push_back(nameOf(position));
    }
  }
  uint32_t at(size_t i) const { return map_.find(keys_[i % lookupKeys])->second; }

 private:
  std::unordered_map<std::string, uint32_t> map_;
  std::vector<std::string> keys_;
};

// The main of a program that has benchmarks and figures: runs the benchmarks, then `printFigures`.
inline int run(int argc, char** argv, int (*printFigures)()) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return printFigures();
}

// An action that calls `step(i)` a million times, for medianRatio().
template <class Step>
auto million(Step step) {
  return [step] {
    for (size_t i = 0; i < 1000000; ++i) benchmark::DoNotOptimize(step(i));
  };
}

}  // namespace Bench
