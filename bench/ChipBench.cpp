// A field write down to the register, over tables in shared memory and a transport in memory; the
// restart of a chip whose tables agree; and the memory that a chip takes. Every field has a
// register of its own, which is the most that a chip can have to keep.

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <unistd.h>

#include <boost/unordered/unordered_flat_map.hpp>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Shoal/ShoalMap.h"
#include "bench/BenchChip.h"
#include "bench/Ratio.h"

namespace {

using namespace Bench;
using namespace KoruRegFile;

constexpr size_t few = 100;
constexpr size_t many = 100000;

size_t residentBytes() {
  size_t size = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident * static_cast<size_t>(::sysconf(_SC_PAGESIZE));
}

double residentPerField = 0;

void measureMemory() {
  const size_t before = residentBytes();
  const Chip chip(many);
  residentPerField = static_cast<double>(residentBytes() - before) / many;
}

// Reads two tables of `many` entries from front to back, and keeps each entry by its key.
class PlainPass {
 public:
  PlainPass() {
    for (Shoal::ShoalMap* table : {&config_, &status_}) {
      table->mountAsWriter(uniquePath() + "table", "Bench::Table", many);
      for (size_t i = 0; i < many; ++i) table->put(uint64_t{i} << 16 | 8, 1);
    }
  }
  void run() const {
    for (const Shoal::ShoalMap* table : {&config_, &status_}) {
      boost::unordered_flat_map<uint64_t, uint32_t> kept;
      Shoal::ShoalMap::Entry entry;
      for (uint32_t position = 0; table->next(position, entry);) kept[entry.key] = entry.value;
      benchmark::DoNotOptimize(kept.size());
    }
  }

 private:
  Shoal::ShoalMap config_{{}};
  Shoal::ShoalMap status_{{}};
};

void fieldWrite(benchmark::State& state) {
  const Chip chip(static_cast<size_t>(state.range(0)));
  Writer writer(chip);
  for (auto _ : state) benchmark::DoNotOptimize(writer.write(0));
}
BENCHMARK(fieldWrite)->Arg(few)->Arg(many);

void restart(benchmark::State& state) {
  Chip chip(many);
  for (auto _ : state) {
    state.PauseTiming();
    chip.stop();
    state.ResumeTiming();
    chip.start();
  }
}
BENCHMARK(restart)->Unit(benchmark::kMillisecond);

void plainPass(benchmark::State& state) {
  const PlainPass pass;
  for (auto _ : state) pass.run();
}
BENCHMARK(plainPass)->Unit(benchmark::kMillisecond);

double fieldWriteRatio(const Chip& chip) {
  const OneHit hit;
  Writer writer(chip);
  return medianRatio(million([&](size_t i) { return writer.write(i); }),
                     million([&](size_t i) { return hit.at(i); }));
}

// The median over rounds of what a restart takes beside a plain pass over both tables. Taking down
// and the write reactor in between are not counted.
double restartRatio(Chip& chip) {
  const PlainPass pass;
  std::vector<double> ratios;
  for (size_t round = 0; round < 15; ++round) {
    chip.stop();
    const double mount = secondsOf([&] { chip.mount(); });
    chip.carry();
    const double react = secondsOf([&] { chip.react(); });
    ratios.push_back((mount + react) / secondsOf([&] { pass.run(); }));
  }
  std::nth_element(ratios.begin(), ratios.begin() + 7, ratios.end());
  return ratios[7];
}

int printFigures() {
  Figures figures("chips");
  figures.add("field write, 100 fields / one hit", fieldWriteRatio(Chip(few)), 60);
  Chip chip(many);
  figures.add("field write, 100 k fields at random / one hit", fieldWriteRatio(chip), 120);
  const size_t writes = chip.writes();
  figures.add("restart with 100 k fields / a pass with an insert each", restartRatio(chip), 10);
  figures.add("register writes at a restart", static_cast<double>(chip.writes() - writes), 0);
  figures.add("resident bytes per field, 100 k fields", residentPerField, 1024);
  return figures.exitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  // First of all, since memory once used is resident for good.
  measureMemory();
  return run(argc, argv, printFigures);
}
