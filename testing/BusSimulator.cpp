#include "testing/BusSimulator.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <utility>

#include "testing/SimulatedBuses.h"

namespace {

using Testing::detail::SimulatedBuses;

struct Locked {
  SimulatedBuses& buses = SimulatedBuses::instance();
  std::lock_guard<std::recursive_mutex> lock{buses.mutex};

  SimulatedBuses* operator->() const { return &buses; }
  bool simulates(int fd) const { return buses.descriptors.contains(fd); }
};

}  // namespace

// The system's functions, for the whole process.
extern "C" {

ORB_EXPORT int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const unsigned mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, unsigned) : 0;
  va_end(rest);
  {
    const Locked simulator;
    if (simulator->nodes.contains(path)) return simulator->open(path, flags);
  }
  return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

ORB_EXPORT int open64(const char* path, int flags, ...) __attribute__((alias("open")));

ORB_EXPORT int close(int fd) {
  const Locked simulator;
  return simulator->close(fd);
}

ORB_EXPORT int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list rest;
  va_start(rest, request);
  void* argument = va_arg(rest, void*);
  va_end(rest);
  {
    const Locked simulator;
    if (simulator.simulates(fd)) return simulator->ioctl(fd, request, argument);
  }
  return static_cast<int>(::syscall(SYS_ioctl, fd, request, argument));
}

ORB_EXPORT int flock(int fd, int operation) noexcept {
  {
    const Locked simulator;
    if (simulator.simulates(fd)) return simulator->flock(fd, operation);
  }
  return static_cast<int>(::syscall(SYS_flock, fd, operation));
}

}  // extern "C"

namespace Testing {

BusSimulator::BusSimulator() { Locked()->clear(); }
BusSimulator::~BusSimulator() { Locked()->clear(); }

void BusSimulator::chipIs(const std::string& node, uint8_t chip, unsigned addressBits) {
  Locked()->nodeIs(node).chips[chip].addressBits = addressBits;
}

void BusSimulator::spiNodeIs(const std::string& node) { Locked()->nodeIs(node).isSpi = true; }

std::map<uint32_t, uint32_t>& BusSimulator::registers(const std::string& node, uint8_t chip) {
  return Locked()->nodes.at(node).chips.at(chip).registers;
}

std::vector<std::string> BusSimulator::takeLedger() { return std::exchange(Locked()->ledger, {}); }

void BusSimulator::faultIs(size_t call, int error, size_t count) {
  const Locked simulator;
  simulator->calls = 0;
  simulator->faultFrom = call;
  simulator->faultError = error;
  simulator->faultCount = count;
}

size_t BusSimulator::calls() const { return Locked()->calls; }

void BusSimulator::busyIs(bool busy) { Locked()->busy = busy; }

void BusSimulator::shortReadsAre(bool areShort) { Locked()->shortReads = areShort; }

void BusSimulator::silentIs(bool silent) { Locked()->silent = silent; }

size_t BusSimulator::openDescriptors() { return Locked()->descriptors.size(); }

bool BusSimulator::areInherited() {
  const Locked locked;
  const auto& open = locked->descriptors;
  return std::any_of(open.begin(), open.end(), [](const auto& each) {
    return (::fcntl(each.first, F_GETFD) & FD_CLOEXEC) == 0;
  });
}

}  // namespace Testing
