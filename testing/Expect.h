#pragma once

// Small helpers of tests: what a call failed with, and waiting for something to happen on the event
// loop. For test programs built with GoogleTest.

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>

#include "Orb/EventLoop.h"

namespace Testing {

// The text of the std::runtime_error that the call throws.
template <class Call>
std::string failure(Call call) {
  try {
    call();
  } catch (const std::runtime_error& e) {
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

}  // namespace Testing
