#include "simulator/tool/State.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "Orb/Descriptor.h"
#include "Orb/Errno.h"
#include "simulator/model/LockedState.h"
#include "simulator/model/Store.h"

namespace Simulator {

namespace {

namespace fs = std::filesystem;

void makeDirectory(const std::string& path) {
  std::error_code error;
  fs::create_directories(path, error);
  if (error) Orb::throwError(error.value(), "cannot make directory {}", path);
}

void makeFile(const std::string& path, const uint8_t* bytes, size_t size) {
  const Orb::Descriptor file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0644));
  if (!file) Orb::throwErrno("cannot make {}", path);
  for (size_t at = 0; at < size;) {
    const ssize_t count = ::write(file.get(), bytes + at, size - at);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) Orb::throwErrno("cannot write {}", path);
    at += static_cast<size_t>(count);
  }
}

// Memory that keeps its bytes, of chips that are still there.
void keepMemory(const Image& before, Image& after) {
  for (const ChipRow& chip : after.chips) {
    const int found = before.chipNamed(chip.name);
    if (found < 0) continue;
    const ChipRow& old = before.chips[static_cast<size_t>(found)];
    if (old.memory != chip.memory || chip.isVolatile) continue;
    std::ranges::copy(before.memory.subspan(old.memoryAt, old.memory),
                      after.memory.subspan(chip.memoryAt, chip.memory).begin());
  }
}

// A state whose board can be used.
class Powered : public LockedState {
 public:
  explicit Powered(const std::string& directory) : LockedState(directory) {
    if (!image()) throw std::runtime_error(why());
  }

  size_t chip(const std::string& name) {
    const int index = image()->chipNamed(name);
    if (index < 0) throw std::invalid_argument(fmt::format("there is no chip '{}'", name));
    return static_cast<size_t>(index);
  }

  // The chip's store, which has that address.
  Store storeFor(const Place& place) {
    const Store store(*image(), chip(place.chip));
    const uint32_t address = place.address.value_or(0);
    const bool isThere = store.row().memory != 0 ? address < store.row().memory
                                                 : store.registerAt(address) >= 0 &&
                                                       (address & ~store.row().addressMask) == 0;
    if (isThere) return store;
    throw std::invalid_argument(
        fmt::format("chip '{}' has no register at {:#x}", place.chip, address));
  }
};

std::string textOf(const Store& store, uint32_t address) {
  return fmt::format("0x{:0{}x}", store.look(address), 2 * store.bytesAt(address));
}

}  // namespace

State::State(std::string directory, const BoardFile& board, bool reset)
    : directory_(std::move(directory)) {
  makeDirectory(directory_ + "/nodes");
  LockedState state(directory_);
  if (!state.isLocked()) throw std::runtime_error(state.why());
  if (!state.image() && state.error() != 0 && state.error() != ENOENT) {
    throw std::runtime_error(state.why());
  }
  if (!state.image() && state.error() == 0 && !reset) {
    throw std::runtime_error(state.why() + "; --reset makes it anew");
  }
  for (const NodeRow& node : board.nodes) {
    makeFile(placeOfNode(directory_, node.path), nullptr, 0);
  }
  std::vector<uint8_t> bytes = imageOf(board);
  Image image = partsOf(bytes);
  if (state.image() && state.image()->header->check == image.header->check && !reset) return;
  if (state.image()) keepMemory(*state.image(), image);
  const std::string next = directory_ + "/board.next";
  ::unlink(next.c_str());
  makeFile(next, bytes.data(), bytes.size());
  const std::string path = directory_ + "/board";
  if (::rename(next.c_str(), path.c_str()) != 0) Orb::throwErrno("cannot make {}", path);
  state.note("power");
}

std::string State::valueAt(const Place& place) const {
  Powered state(directory_);
  if (place.address) return textOf(state.storeFor(place), *place.address);
  const size_t chip = state.chip(place.chip);
  const Store store(*state.image(), chip);
  const ChipRow& row = store.row();
  if (row.memory != 0) {
    throw std::invalid_argument(
        fmt::format("chip '{}' is a memory: name one of its addresses", place.chip));
  }
  std::string lines;
  for (const RegisterRow& reg :
       state.image()->registers.subspan(row.firstRegister, row.registers)) {
    const auto digits = 2 * std::max<uint32_t>(1, row.addressBytes);
    if (!lines.empty()) lines += '\n';
    lines += fmt::format("0x{:0{}x}  {}", reg.at, digits, textOf(store, reg.at));
  }
  return lines;
}

void State::valueIs(const Place& place, uint32_t value) {
  Powered state(directory_);
  Store store = state.storeFor(place);
  const uint32_t address = place.address.value_or(0);
  const int index = store.row().memory != 0 ? -1 : store.registerAt(address);
  const uint32_t mask =
      index < 0 ? 0xff : state.image()->registers[static_cast<size_t>(index)].mask;
  if ((value & ~mask) != 0) {
    throw std::invalid_argument(
        fmt::format("{:#x} does not fit into {}:{:#x}, which takes up to {:#x}", value, place.chip,
                    address, mask));
  }
  store.put(address, value);
  state.note(fmt::format("set {}:{:#x}={:#x}", place.chip, address, value));
}

void State::isPlugged(const std::string& chip, bool plugged) {
  Powered state(directory_);
  state.image()->chipStates[state.chip(chip)].unplugged = !plugged;
  state.note((plugged ? "plug " : "unplug ") + chip);
}

void State::printLedger() const {
  Powered state(directory_);
  std::ifstream ledger(directory_ + "/ledger");
  for (std::string line; std::getline(ledger, line);) std::puts(line.c_str());
  const uint32_t lost = state.image()->header->lostLines;
  if (lost > 0) fmt::print(stderr, "korusim: {} lines of the ledger could not be written\n", lost);
}

}  // namespace Simulator
