#pragma once

// Runs korureg as its users do.

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "testing/Process.h"

namespace Korureg {

// Where the program is; the test program says so.
extern const char* const program;

// Arguments are separated by blanks.
inline Testing::Command command(const std::string& words,
                                std::vector<std::string> environment = {}) {
  environment.emplace_back("ORB_TRACE=");
  std::vector<std::string> arguments = {program};
  std::istringstream in(words);
  for (std::string word; in >> word;) arguments.push_back(word);
  return {arguments, environment};
}

inline void expectFailure(const Testing::Outcome& outcome, int exitCode, const std::string& why) {
  EXPECT_EQ(outcome.err, "korureg: " + why + "\n");
  EXPECT_EQ(outcome.exitCode, exitCode);
}

// The next line of a watch, without its time.
inline std::string nextLine(Testing::Process& watch) {
  constexpr std::string_view shape = "0000-00-00T00:00:00.000+00:00  ";
  const auto fits = [](char shown, char c) {
    if (shown == '0') return c >= '0' && c <= '9';
    return c == shown || (shown == '+' && c == '-');
  };
  const std::string line = watch.line();
  const bool hasTime =
      line.size() >= shape.size() && std::equal(shape.begin(), shape.end(), line.begin(), fits);
  return hasTime ? line.substr(shape.size()) : line;
}

}  // namespace Korureg
