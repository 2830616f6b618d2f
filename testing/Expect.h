#pragma once

// Small helpers of tests: what a call failed with, waiting for something to happen on the event
// loop, entities by name, and counters. For test programs built with GoogleTest.

#include <gtest/gtest.h>

#include <chrono>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Orb/Counter.h"
#include "Orb/EntityType.h"
#include "Orb/EventLoop.h"

namespace Testing {

// The text of the exception that the call throws; one of another class passes.
template <class Exception = std::runtime_error, class Call>
std::string failure(Call call) {
  try {
    call();
  } catch (const Exception& e) {
    return e.what();
  }
  return "(nothing was thrown)";
}

// Serves the event loop until the condition holds.
template <class Condition>
void waitFor(Condition condition) {
  while (!condition()) {
    ASSERT_GT(Orb::eventLoop().runFor(std::chrono::seconds(20)), 0u) << "nothing happens any more";
  }
}

// Serves the event loop until nothing is left to do.
inline void settle() {
  while (Orb::eventLoop().runPending() != 0) {
  }
}

// Calls an operation by name, with its arguments in string form.
inline std::string call(Orb::Entity& entity, const char* operation,
                        std::initializer_list<std::string_view> arguments) {
  return Orb::callOperation(entity, operation, {arguments.begin(), arguments.size()});
}

// The sum of all counters of that name and owner.
inline uint64_t counted(std::string_view owner, std::string_view name) {
  uint64_t sum = 0;
  for (const auto& reading : Orb::counterReadings()) {
    if (reading.owner == owner && reading.name == name) sum += reading.value;
  }
  return sum;
}

}  // namespace Testing
