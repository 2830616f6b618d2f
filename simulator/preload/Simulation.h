#pragma once

// The simulated board from within a program: which paths and which descriptors are its device
// files, and what is done on them. Knows a device file by the file that stands for it, however a
// descriptor came about: duplicated, inherited, sent. Any thread.

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <span>
#include <string>

#include "simulator/model/Image.h"

namespace Simulator {

struct Node {
  std::string path;
  std::string place;  // of the file that stands for it
  NodeKind kind = NodeKind::i2c;
  unsigned number = 0;
  // Of the file, as it was when it was last opened here.
  mutable std::atomic<uint64_t> device = 0;
  mutable std::atomic<uint64_t> inode = 0;
};

class Simulation {
 public:
  // That of this process; without nodes when there is none.
  static const Simulation& instance();

  const Node* nodeAt(const char* path) const;
  // The node whose file that is.
  const Node* nodeOf(uint64_t device, uint64_t inode) const;
  const Node* nodeOf(int fd) const;
  // After a descriptor of the node's file has been opened.
  void isOpened(const Node& node, int fd) const;
  bool isEmpty() const { return nodes_.empty(); }

  // As the system calls: -1, with errno set, for a failure.
  int control(const Node& node, int fd, unsigned long request, void* argument) const;
  long read(const Node& node, int fd, std::span<uint8_t> bytes) const;
  long write(const Node& node, int fd, std::span<const uint8_t> bytes) const;

 private:
  Simulation();
  template <class Call>
  long transact(const Node& node, Call call) const;

  std::string directory_;
  std::deque<Node> nodes_;  // never changed after the start
};

}  // namespace Simulator
