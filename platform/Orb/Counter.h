#pragma once

// Statistics counters and the process's registry of them. An object has its counters as members;
// they are listed under the object's name for as long as the object lives, and names may repeat.
// Counting costs a plain add; it happens on one thread, reading on any.

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "Orb/Export.h"
#include "Orb/String.h"

namespace Orb {

class ORB_EXPORT Counter {
 public:
  // `owner` says whose counter it is, `name` what it counts.
  Counter(String owner, String name);
  ~Counter();
  Counter(const Counter&) = delete;
  Counter& operator=(const Counter&) = delete;

  void increment() { value_.store(value() + 1, std::memory_order_relaxed); }
  uint64_t value() const { return value_.load(std::memory_order_relaxed); }
  const String& owner() const { return owner_; }
  const String& name() const { return name_; }

 private:
  std::atomic<uint64_t> value_{0};
  String owner_;
  String name_;
};

// Plain strings: a String would be shared with the thread that owns the counter.
struct CounterReading {
  std::string owner;
  std::string name;
  uint64_t value;
};

// All counters of living objects, in the order of their creation.
ORB_EXPORT std::vector<CounterReading> counterReadings();

}  // namespace Orb
