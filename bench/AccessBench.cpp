// Access by name through TransportMethod over a transport in memory, and what a trace costs whose
// level is off; beside a random hit in a hash map of strings ("one hit"), and a virtual call and a
// store.

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <memory>
#include <string>
#include <vector>

#include "KoruRegFile/TransportMethod.h"
#include "Orb/Trace.h"
#include "bench/Ratio.h"
#include "testing/ArrayTransport.h"
#include "testing/TempFile.h"

namespace {

using namespace Bench;

// A chip of 1 k registers, accessed at random with ready names.
class Chip {
 public:
  Chip() {
    std::string text = "number,name,type,writeable,width\n";
    for (size_t i = 0; i < lookupKeys; ++i)
      text += fmt::format("{},{},cfg,true,32\n", i, nameOf(i));
    const Testing::TempFile map(text);
    transport_->implPtrIs(std::make_unique<Testing::ArrayTransport>(map.path(), lookupKeys));
    for (const uint32_t position : randomPositions(lookupKeys, lookupKeys)) {
      names_.emplace_back(nameOf(position));
    }
  }
  uint32_t read(size_t i) const { return transport_->regRead(names_[i % lookupKeys]); }
  uint32_t write(size_t i) const {
    transport_->regWrite(names_[i % lookupKeys], 1);
    return 0;
  }

 private:
  const Orb::Ptr<KoruRegFile::TransportMethod> transport_ =
      KoruRegFile::transportMethodFactory("bench");
  std::vector<Orb::String> names_;
};

// The least that an access behind an interface can cost.
class Store {
 public:
  virtual ~Store() = default;
  virtual uint32_t put(uint32_t value) = 0;
};
class PlainStore : public Store {
 public:
  uint32_t put(uint32_t value) override {
    stored_ = value;
    return value;
  }

 private:
  volatile uint32_t stored_ = 0;
};
// Never made; with a single implementation the compiler would see through the virtual call.
class NoStore : public Store {
 public:
  uint32_t put(uint32_t) override { return 0; }
};

std::unique_ptr<Store> makeStore() {
  volatile bool plain = true;
  if (plain) return std::make_unique<PlainStore>();
  return std::make_unique<NoStore>();
}

const Orb::TraceHandle trace("AccessBench");

uint32_t tracedOff(size_t i) {
  ORB_TRACE(trace, 2, "step {}", i);
  return 0;
}

void readByName(benchmark::State& state) {
  const Chip chip;
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(chip.read(i++));
}
BENCHMARK(readByName);

void writeByName(benchmark::State& state) {
  const Chip chip;
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(chip.write(i++));
}
BENCHMARK(writeByName);

void oneHit(benchmark::State& state) {
  const OneHit hit;
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(hit.at(i++));
}
BENCHMARK(oneHit);

void virtualCallAndStore(benchmark::State& state) {
  const std::unique_ptr<Store> store = makeStore();
  uint32_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(store->put(i++));
}
BENCHMARK(virtualCallAndStore);

void traceOff(benchmark::State& state) {
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(tracedOff(i++));
}
BENCHMARK(traceOff);

int printFigures() {
  const Chip chip;
  const OneHit hit;
  const std::unique_ptr<Store> store = makeStore();
  const auto read = million([&](size_t i) { return chip.read(i); });
  const auto write = million([&](size_t i) { return chip.write(i); });
  const auto one = million([&](size_t i) { return hit.at(i); });
  const auto call = million([&](size_t i) { return store->put(static_cast<uint32_t>(i)); });
  const auto off = million(tracedOff);

  Figures figures("access by name");
  figures.add("read by name / one hit", medianRatio(read, one), 3);
  figures.add("write by name / one hit", medianRatio(write, one), 3);
  figures.add("write by name / virtual call and store", medianRatio(write, call));
  figures.add("a trace whose level is off, in ns", secondsOf(off) * 1e9 / 1e6, 2);
  return figures.exitStatus();
}

}  // namespace

int main(int argc, char** argv) { return run(argc, argv, printFigures); }
