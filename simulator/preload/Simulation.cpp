#include "simulator/preload/Simulation.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "simulator/model/Devices.h"
#include "simulator/model/LockedState.h"

namespace Simulator {

namespace {

// Once in each process; a program whose board has gone would say nothing but EIO otherwise.
void tell(const std::string& why) {
  static std::atomic<bool> isTold = false;
  if (isTold.exchange(true)) return;
  const std::string text = "korusim: " + why + "\n";
  ::syscall(SYS_write, STDERR_FILENO, text.data(), text.size());
}

// Below fstat() and stat(), which this library replaces.
bool look(int fd, const char* path, struct statx& status) {
  return ::syscall(SYS_statx, fd, path, AT_EMPTY_PATH, STATX_BASIC_STATS, &status) == 0;
}

uint64_t deviceOf(const struct statx& status) {
  return makedev(status.stx_dev_major, status.stx_dev_minor);
}

void remember(const Node& node, const struct statx& status) {
  node.device = deviceOf(status);
  node.inode = status.stx_ino;
}

}  // namespace

const Simulation& Simulation::instance() {
  static const Simulation* const simulation = new Simulation;
  return *simulation;
}

Simulation::Simulation() {
  const char* const directory = std::getenv("KORUSIM_STATE");
  if (!directory || !*directory) return;
  directory_ = directory;
  LockedState state(directory_);
  const Image* const image = state.image();
  if (!image) tell(state.why());
  for (const NodeRow& row : image ? image->nodes : std::span<NodeRow>()) {
    Node& node = nodes_.emplace_back();
    node.path = row.path;
    node.place = placeOfNode(directory_, node.path);
    node.kind = row.kind;
    node.number = static_cast<unsigned>(nodes_.size() - 1);
    struct statx status;
    if (look(AT_FDCWD, node.place.c_str(), status)) remember(node, status);
  }
}

const Node* Simulation::nodeAt(const char* path) const {
  if (!path || path[0] != '/') return nullptr;
  for (const Node& node : nodes_) {
    if (node.path == path) return &node;
  }
  return nullptr;
}

const Node* Simulation::nodeOf(uint64_t device, uint64_t inode) const {
  for (const Node& node : nodes_) {
    if (node.inode == inode && node.device == device) return &node;
  }
  return nullptr;
}

const Node* Simulation::nodeOf(int fd) const {
  struct statx status;
  if (nodes_.empty() || !look(fd, "", status) || !S_ISREG(status.stx_mode)) return nullptr;
  return nodeOf(deviceOf(status), status.stx_ino);
}

void Simulation::isOpened(const Node& node, int fd) const {
  struct statx status;
  if (look(fd, "", status)) remember(node, status);
}

template <class Call>
long Simulation::transact(const Node& node, Call call) const {
  LockedState state(directory_);
  Image* const image = state.image();
  const int index = image ? image->nodeOf(node.path) : -1;
  long result = image ? -ENODEV : -EIO;
  if (!image) tell(state.why());
  if (index >= 0) {
    std::string line;
    result = call(*image, static_cast<size_t>(index), line);
    if (!line.empty()) state.note(node.path + line);
  }
  if (result >= 0) return result;
  errno = static_cast<int>(-result);
  return -1;
}

int Simulation::control(const Node& node, int fd, unsigned long request, void* argument) const {
  return static_cast<int>(transact(node, [&](Image& image, size_t index, std::string& line) {
    if (node.kind == NodeKind::spi) return spiControl(image, index, request, argument, line);
    I2cOpen open = I2cOpen::of(::lseek(fd, 0, SEEK_CUR));
    const long result = i2cControl(image, index, open, request, argument, line);
    ::lseek(fd, open.offset(), SEEK_SET);
    return result;
  }));
}

long Simulation::read(const Node& node, int fd, std::span<uint8_t> bytes) const {
  return transact(node, [&](Image& image, size_t index, std::string& line) {
    if (node.kind == NodeKind::spi) return spiRead(image, index, bytes, line);
    return i2cRead(image, index, I2cOpen::of(::lseek(fd, 0, SEEK_CUR)), bytes, line);
  });
}

long Simulation::write(const Node& node, int fd, std::span<const uint8_t> bytes) const {
  return transact(node, [&](Image& image, size_t index, std::string& line) {
    if (node.kind == NodeKind::spi) return spiWrite(image, index, bytes, line);
    return i2cWrite(image, index, I2cOpen::of(::lseek(fd, 0, SEEK_CUR)), bytes, line);
  });
}

}  // namespace Simulator
