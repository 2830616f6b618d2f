#pragma once

// What is worth telling once in a while, however often it happens. Used on one thread.

#include <chrono>
#include <optional>

namespace Orb {

class Seldom {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Seldom(Clock::duration pause = std::chrono::seconds(10)) : pause_(pause) {}

  // Whether it is time again; counts as told then.
  bool isDue() {
    const auto now = Clock::now();
    if (told_ && now - *told_ < pause_) return false;
    told_ = now;
    return true;
  }

 private:
  const Clock::duration pause_;
  std::optional<Clock::time_point> told_;
};

}  // namespace Orb
