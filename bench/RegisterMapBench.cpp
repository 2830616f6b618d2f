// Register maps: how long one takes to load and a register to find, and what it costs in memory,
// beside the raw limit of the same machine, measured in the same program. After the benchmarks,
// main measures ours and the raw limit in turn and prints the ratios that have to be held.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/unordered/unordered_flat_map.hpp>
#include <charconv>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "KoruRegFile/RegisterFile.h"
#include "KoruRegFile/Utils.h"
#include "bench/Ratio.h"
#include "testing/TempFile.h"

namespace {

using KoruRegFile::RegisterFile;
using namespace Bench;

constexpr uint8_t blockSize = 4;

// --- Maps ----------------------------------------------------------------------------------------

// A map file of `count` registers, made once.
const char* mapPath(size_t count) {
  static std::map<size_t, std::unique_ptr<Testing::TempFile>> files;
  auto& file = files[count];
  if (!file) {
    std::string text = "number,name,type,writeable,width\n";
    for (size_t i = 0; i < count; ++i) {
      text += fmt::format("{},{},{},{},32\n", i, nameOf(i), i % 2 ? "cfg" : "sts", i % 2 != 0);
    }
    file = std::make_unique<Testing::TempFile>(text);
  }
  return file->path();
}

// --- The raw limit -------------------------------------------------------------------------------

// The least that answers by name and by address: the file stays mapped, names are views of it, and
// nothing is checked.
class RawMap {
 public:
  explicit RawMap(const char* path) {
    const KoruRegFile::Utils::UnixFdRes file(::open(path, O_RDONLY | O_CLOEXEC));
    struct stat status {};
    ::fstat(file.fd(), &status);
    size_ = static_cast<size_t>(status.st_size);
    text_ = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, file.fd(), 0);
    const char* at = static_cast<const char*>(text_);
    const char* end = at + size_;
    for (at = behind(at, end, '\n'); at < end;) at = parse(at, behind(at, end, '\n'));
  }
  ~RawMap() { ::munmap(text_, size_); }
  RawMap(const RawMap&) = delete;
  RawMap& operator=(const RawMap&) = delete;

  size_t size() const { return registers_.size(); }

 private:
  struct Entry {
    uint32_t address;
    uint32_t width;
    char type;
    bool writeable;
    std::string_view name;
  };

  static const char* behind(const char* at, const char* end, char c) {
    const void* found = std::memchr(at, c, static_cast<size_t>(end - at));
    return found == nullptr ? end : static_cast<const char*>(found) + 1;
  }

  const char* parse(const char* at, const char* end) {
    Entry entry{};
    const char* name = std::from_chars(at, end, entry.address).ptr + 1;
    const char* type = behind(name, end, ',');
    const char* writeable = behind(type, end, ',');
    const char* width = behind(writeable, end, ',');
    entry.address *= blockSize;
    entry.name = {name, static_cast<size_t>(type - name - 1)};
    entry.type = *type;
    entry.writeable = *writeable != 'f';
    std::from_chars(width, end, entry.width);
    byName_.try_emplace(entry.name, static_cast<uint32_t>(registers_.size()));
    byAddress_.try_emplace(entry.address, static_cast<uint32_t>(registers_.size()));
    registers_.push_back(entry);
    return end;
  }

  void* text_;
  size_t size_;
  std::vector<Entry> registers_;
  boost::unordered_flat_map<std::string_view, uint32_t> byName_;
  boost::unordered_flat_map<uint32_t, uint32_t> byAddress_;
};

// Random look-ups in a map of the same size, with ready keys.
class Lookups {
 public:
  Lookups() : map_(mapPath(lookupKeys), blockSize) {
    for (const uint32_t position : randomPositions(lookupKeys, lookupKeys)) {
      names_.push_back(map_.registers()[position].name);
      addresses_.push_back(map_.registers()[position].address);
    }
  }
  const KoruRegFile::Register& byName(size_t i) const {
    return map_.findRegisterByName(names_[i % lookupKeys]);
  }
  const Orb::String& byAddress(size_t i) const {
    return map_.regNameAtAddr(addresses_[i % lookupKeys]);
  }

 private:
  RegisterFile map_;
  std::vector<Orb::String> names_;
  std::vector<uint32_t> addresses_;
};

// What the heap has given out, its own overhead included.
size_t heapBytes() {
  const struct mallinfo2 info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

// What a loaded map takes for each register beyond the text of its name.
double bytesPerRegister(size_t count) {
  const char* path = mapPath(count);
  const size_t before = heapBytes();
  const RegisterFile map(path, blockSize);
  size_t bytes = heapBytes() - before;
  for (const auto& reg : map.registers()) bytes -= reg.name.size();
  return static_cast<double>(bytes) / static_cast<double>(map.registers().size());
}

// --- Benchmarks ----------------------------------------------------------------------------------

void loadMap(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  const char* path = mapPath(count);
  for (auto _ : state) benchmark::DoNotOptimize(RegisterFile(path, blockSize).registers().size());
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["bytes/register"] = bytesPerRegister(count);
}
BENCHMARK(loadMap)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);

void loadRaw(benchmark::State& state) {
  const char* path = mapPath(static_cast<size_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(RawMap(path).size());
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(loadRaw)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);

void findByName(benchmark::State& state) {
  const Lookups lookups;
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(uint32_t{lookups.byName(i++).address});
}
BENCHMARK(findByName);

void findByAddress(benchmark::State& state) {
  const Lookups lookups;
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(lookups.byAddress(i++).c_str());
}
BENCHMARK(findByAddress);

void oneHit(benchmark::State& state) {
  const OneHit map;
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(map.at(i++));
}
BENCHMARK(oneHit);

// --- Ratios --------------------------------------------------------------------------------------

double loadRatio(size_t count) {
  const char* path = mapPath(count);
  const size_t repeats = 100000 / count;
  return medianRatio(
      [=] {
        for (size_t i = 0; i < repeats; ++i) RegisterFile(path, blockSize);
      },
      [=] {
        for (size_t i = 0; i < repeats; ++i) RawMap{path};
      });
}

int printFigures() {
  const Lookups lookups;
  const OneHit hit;
  const auto one = million([&](size_t i) { return hit.at(i); });
  const auto byName = million([&](size_t i) { return lookups.byName(i).address; });
  const auto byAddress = million([&](size_t i) { return lookups.byAddress(i).c_str(); });

  Figures figures("register maps");
  for (const size_t count : {1000u, 10000u}) {
    figures.add(fmt::format("load {} registers / raw parse and index", count), loadRatio(count));
  }
  figures.add("load 100000 registers / raw parse and index", loadRatio(100000), 4);
  figures.add("bytes per register beyond its name, 100000", bytesPerRegister(100000), 250);
  figures.add("find by name / one hit", medianRatio(byName, one));
  figures.add("find by address / one hit", medianRatio(byAddress, one));
  return figures.exitStatus();
}

}  // namespace

int main(int argc, char** argv) { return run(argc, argv, printFigures); }
