// What the transports to hardware cost beyond the hardware: beside a random hit in a hash map of
// strings ("one hit"), and beside the bare system calls of the same access. The buses are no real
// ones: each ioctl() enters the kernel once, on /dev/null, and is then said to have succeeded.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/spi/spidev.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <memory>
#include <string>
#include <vector>

#include "KoruRegFile/I2cTransportMethodImpl.h"
#include "KoruRegFile/I2cTransportRelayImpl.h"
#include "KoruRegFile/PciTransportMethodImpl.h"
#include "KoruRegFile/SpiTransportMethodImpl.h"
#include "KoruRegFile/TransportMethod.h"
#include "Orb/EventLoop.h"
#include "Orb/Trace.h"
#include "bench/Ratio.h"
#include "testing/RegisterWindow.h"
#include "testing/TempFile.h"

extern "C" [[gnu::visibility("default")]] int ioctl(int fd, unsigned long request, ...) noexcept {
  ::syscall(SYS_ioctl, fd, request, nullptr);
  const bool isSpiMessage = _IOC_TYPE(request) == SPI_IOC_MAGIC && _IOC_NR(request) == 0;
  if (!isSpiMessage) return 0;
  va_list rest;
  va_start(rest, request);
  const auto* transfer = va_arg(rest, const spi_ioc_transfer*);
  va_end(rest);
  return static_cast<int>(transfer->len);
}

namespace {

using namespace Bench;
using namespace KoruRegFile;

constexpr const char* node = "/dev/null";

// A map of 1 k registers, accessed at random with ready names; the addresses fit `highest`.
class Chip {
 public:
  explicit Chip(uint32_t highest) {
    std::string text = "number,name,type,writeable,width\n";
    for (size_t i = 0; i <= std::min<size_t>(highest, lookupKeys - 1); ++i) {
      text += fmt::format("{},{},cfg,true,32\n", i, nameOf(i));
      ++registers_;
    }
    map_ = std::make_unique<Testing::TempFile>(text);
    for (const uint32_t position : randomPositions(lookupKeys, registers_)) {
      names_.emplace_back(nameOf(position));
    }
  }
  const char* map() const { return map_->path(); }
  void implIs(std::unique_ptr<BaseTransportMethodImpl> impl) { tm->implPtrIs(std::move(impl)); }
  const Orb::String& name(size_t i) const { return names_[i % lookupKeys]; }
  const char* text(size_t i) const { return name(i).c_str(); }

  const Orb::Ptr<TransportMethod> tm = transportMethodFactory("bench");

 private:
  size_t registers_ = 0;
  std::unique_ptr<Testing::TempFile> map_;
  std::vector<Orb::String> names_;
};

class PciChip : public Chip {
 public:
  PciChip() : Chip(UINT32_MAX) {
    implIs(std::make_unique<PciTransportMethodImpl>(
        Plat::pciPaxImplFactory("bench", window_.path()), map(), nullptr));
  }

 private:
  const Testing::RegisterWindow window_{lookupKeys * 4};
};

void pciReadByName(benchmark::State& state) {
  const PciChip chip;
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(chip.tm->regRead(chip.name(i++)));
}
BENCHMARK(pciReadByName);

void i2cBlockReadByName(benchmark::State& state) {
  Chip chip(UINT32_MAX);
  chip.implIs(std::make_unique<I2cTransportMethodImpl>(node, 0x50, chip.map(),
                                                       I2cFlavour::dataBlock, nullptr));
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(chip.tm->regRead(chip.name(i++)));
}
BENCHMARK(i2cBlockReadByName);

// An action that calls `step(i)` a hundred thousand times.
template <class Step>
auto hundredThousand(Step step) {
  return [step] {
    for (size_t i = 0; i < 100000; ++i) benchmark::DoNotOptimize(step(i));
  };
}

// How much longer `ours` takes than `theirs`, in hits: the median of rounds measured back to back.
// All three do the same number of steps.
template <class Ours, class Theirs, class Hits>
double medianExcess(Ours ours, Theirs theirs, Hits hits) {
  constexpr size_t rounds = 15;
  std::vector<double> excess;
  ours();
  theirs();
  for (size_t i = 0; i < rounds; ++i) {
    const double beyond = secondsOf(ours) - secondsOf(theirs);
    excess.push_back(beyond / secondsOf(hits));
  }
  std::nth_element(excess.begin(), excess.begin() + rounds / 2, excess.end());
  return excess[rounds / 2];
}

void addPci(Figures& figures, const OneHit& hit) {
  const PciChip chip;
  const auto one = million([&](size_t i) { return hit.at(i); });
  figures.add("PCI read by name, guarded / one hit",
              medianRatio(million([&](size_t i) { return chip.tm->regRead(chip.name(i)); }), one),
              3);
  const auto write = million([&](size_t i) {
    chip.tm->regWrite(chip.name(i), 1);
    return 0;
  });
  figures.add("PCI write by name, guarded / one hit", medianRatio(write, one), 3);
}

void addI2c(Figures& figures, const OneHit& hit, const char* what, I2cFlavour flavour, int ioctls) {
  Chip chip(255);
  chip.implIs(std::make_unique<I2cTransportMethodImpl>(node, 0x50, chip.map(), flavour, nullptr));
  const int fd = ::open(node, O_RDWR | O_CLOEXEC);
  const bool locks = flavour == I2cFlavour::dataBlock;
  const auto bare = hundredThousand([=](size_t) {
    if (locks) ::flock(fd, LOCK_EX);
    for (int i = 0; i < ioctls; ++i) ::ioctl(fd, 0x0720, nullptr);
    if (locks) ::flock(fd, LOCK_UN);
    return 0;
  });
  const auto read = hundredThousand([&](size_t i) { return chip.tm->regRead(chip.name(i)); });
  figures.add(what, medianExcess(read, bare, hundredThousand([&](size_t i) { return hit.at(i); })),
              10);
  ::close(fd);
}

// The bus time of a read through the agent: its lock, its two transactions, its unlock.
void addAgent(Figures& figures, const OneHit& hit) {
  constexpr size_t reads = 10000;
  Chip chip(UINT32_MAX);
  chip.implIs(std::make_unique<I2cTransportRelayImpl>(Hardware::relayFactory("bench", node), 0x50,
                                                      chip.map(), nullptr));
  const int fd = ::open(node, O_RDWR | O_CLOEXEC);
  size_t done = 0;
  const auto queueAndFinish = [&] {
    done = 0;
    for (size_t i = 0; i < reads; ++i) {
      chip.tm->regReadWithCallback(chip.name(i), [&](auto...) {
        if (++done == reads) Orb::eventLoop().stop();
      });
    }
    Orb::eventLoop().run();
  };
  const auto bare = [&] {
    for (size_t i = 0; i < reads; ++i) {
      ::flock(fd, LOCK_EX | LOCK_NB);
      ::ioctl(fd, 0x0720, nullptr);
      ::ioctl(fd, 0x0720, nullptr);
      ::flock(fd, LOCK_UN);
    }
  };
  const auto hits = [&] {
    for (size_t i = 0; i < reads; ++i) benchmark::DoNotOptimize(hit.at(i));
  };
  figures.add("agent: a queued read beyond the bus time, in hits",
              medianExcess(queueAndFinish, bare, hits), 60);
  ::close(fd);
}

void addSpi(Figures& figures, const OneHit& hit) {
  Chip chip(255);
  chip.implIs(std::make_unique<SpiTransportMethodImpl>(Orb::make<Plat::Pax>("bench", node),
                                                       chip.map(), nullptr));
  const auto* spi = dynamic_cast<SpiTransportMethodImpl*>(chip.tm->implPtr());
  const auto queue = [&] {
    for (size_t i = 0; i < lookupKeys; ++i) chip.tm->regWrite(chip.name(i), 1);
  };
  const auto hits = [&] {
    for (size_t i = 0; i < lookupKeys; ++i) benchmark::DoNotOptimize(hit.at(i));
  };
  // The queue is emptied between the rounds, which is not measured.
  std::vector<double> ratios;
  for (int round = 0; round < 101; ++round) {
    const double took = secondsOf(queue);
    ratios.push_back(took / secondsOf(hits));
    while (spi->config()->requests() != 0) Orb::eventLoop().runPending();
  }
  std::nth_element(ratios.begin(), ratios.begin() + 50, ratios.end());
  figures.add("SPI: queueing a write / one hit", ratios[50], 10);
}

int printFigures() {
  const OneHit hit;
  Figures figures("transports");
  addPci(figures, hit);
  addI2c(figures, hit, "I2C block read beyond its 4 system calls, in hits", I2cFlavour::dataBlock,
         2);
  addI2c(figures, hit, "I2C word read beyond its system call, in hits", I2cFlavour::dataWord, 1);
  addAgent(figures, hit);
  addSpi(figures, hit);
  return figures.exitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  Orb::traceLevelIs("*", -1);
  return run(argc, argv, printFigures);
}
