#pragma once

// The state directory of a simulated board, locked for one transaction. The lock is the kernel's
// and is held by a descriptor of this object alone: a process that is killed gives it up, and
// threads, forks and programs that close every descriptor need no care. Nothing is kept from one
// transaction to the next.
//
//     lock      whoever changes anything holds it
//     board     the image (Image.h); korusim makes it
//     ledger    what was on the wires, a line for each transaction; before that, ledger.old
//     nodes/    a file for each device file, which programs open and lock in its place
//
// Works below the functions that the preloaded library replaces.

#include <cstdint>
#include <span>
#include <string>

#include "simulator/model/Image.h"

namespace Simulator {

// The file of the directory that stands for a device file.
std::string placeOfNode(const std::string& directory, const std::string& path);

class LockedState {
 public:
  // Waits for the lock.
  explicit LockedState(const std::string& directory);
  ~LockedState();
  LockedState(const LockedState&) = delete;
  LockedState& operator=(const LockedState&) = delete;

  // Null when the board cannot be used: why() says so, and error() has the errno of a file that
  // could not be opened, 0 for one that is damaged.
  Image* image() { return image_.header ? &image_ : nullptr; }
  const std::string& why() const { return why_; }
  int error() const { return error_; }
  bool isLocked() const { return lock_ >= 0; }

  // Adds a line to the ledger; counts it in the image when it cannot.
  void note(std::string line);

 private:
  void lock();
  void map();
  void refuse(const std::string& file, const std::string& why, int error);

  const std::string directory_;
  int lock_ = -1;
  std::span<uint8_t> bytes_;
  Image image_;
  std::string why_;
  int error_ = 0;
};

}  // namespace Simulator
