#pragma once

// How long to wait before the next of several attempts at the same thing: twice as long each time,
// up to a limit. Whoever fails for long then costs little. Used on one thread.

#include <algorithm>
#include <chrono>

namespace Orb {

class Backoff {
 public:
  using Duration = std::chrono::milliseconds;

  constexpr Backoff(Duration first, Duration longest) : first_(first), longest_(longest) {}

  // No attempt has failed yet, so this one is worth telling.
  bool isFresh() const { return last_ == Duration(0); }
  // After an attempt that has failed.
  Duration next() {
    last_ = isFresh() ? first_ : std::min(2 * last_, longest_);
    return last_;
  }
  // After success.
  void reset() { last_ = Duration(0); }

 private:
  Duration first_;
  Duration longest_;
  Duration last_{0};
};

}  // namespace Orb
