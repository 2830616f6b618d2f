#include "Orb/Counter.h"

#include <mutex>

namespace Orb {

namespace {

// Never destroyed, so that static objects may leave it until the end.
struct Registry {
  std::mutex mutex;
  std::vector<Counter*> counters;
};

Registry& registry() {
  static Registry* instance = new Registry;
  return *instance;
}

}  // namespace

Counter::Counter(String owner, String name) : owner_(std::move(owner)), name_(std::move(name)) {
  const std::lock_guard lock(registry().mutex);
  registry().counters.push_back(this);
}

Counter::~Counter() {
  const std::lock_guard lock(registry().mutex);
  std::erase(registry().counters, this);
}

std::vector<CounterReading> counterReadings() {
  const std::lock_guard lock(registry().mutex);
  std::vector<CounterReading> readings;
  readings.reserve(registry().counters.size());
  for (const Counter* counter : registry().counters) {
    readings.push_back(
        {std::string(counter->owner()), std::string(counter->name()), counter->value()});
  }
  return readings;
}

}  // namespace Orb
