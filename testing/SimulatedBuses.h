#pragma once

// The state behind BusSimulator: nodes, chips, faults and ledger of the process. Internal to the
// simulator, whose functions hold the lock when they call these.

#include <cstdint>
#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <vector>

struct i2c_smbus_ioctl_data;

namespace Testing::detail {

struct Chip {
  unsigned addressBits = 8;
  uint16_t pointer = 0;  // where the last address phase left it
  std::map<uint32_t, uint32_t> registers;
};

struct Node {
  bool isSpi = false;
  int backing = -1;  // a file that all descriptors of the node are opened from, so that they lock
  std::map<unsigned, Chip> chips;
};

struct OpenNode {
  std::string path;
  unsigned slave = 0;
};

class SimulatedBuses {
 public:
  static SimulatedBuses& instance();  // never destroyed

  std::recursive_mutex mutex;
  std::map<std::string, Node> nodes;
  std::map<int, OpenNode> descriptors;
  std::vector<std::string> ledger;
  size_t calls = 0;
  size_t faultFrom = std::numeric_limits<size_t>::max();
  size_t faultCount = 0;
  bool shortReads = false;  // block reads bring a byte too few
  bool busy = false;        // every I2C transaction fails with EAGAIN
  int faultError = 0;
  bool silent = false;

  Node& nodeIs(const std::string& path);
  void clear();

  // As the system calls: negative, with errno set, for a failure.
  int open(const std::string& path, int flags);
  int close(int fd);
  int ioctl(int fd, unsigned long request, void* argument);
  int flock(int fd, int mode);

 private:
  SimulatedBuses();
  void readScript();
  void save() const;
  bool isSilent() const;

  // Notes a call and its outcome: the scripted fault, if it is due, or `error`, 0 for success.
  int finish(std::string entry, int error);
  bool faultIsDue();
  int transfer(OpenNode& open, i2c_smbus_ioctl_data& arguments);
  int message(const void* transfers, size_t count);

  std::string directory_;  // of a program of its own; otherwise empty
};

}  // namespace Testing::detail
