#pragma once

// Runs korureg as its users do.

#include <gtest/gtest.h>

#include <boost/regex.hpp>
#include <sstream>
#include <string>
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
  const boost::regex time("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}[+-]\\d\\d:\\d\\d  ");
  return boost::regex_replace(watch.line(), time, "");
}

}  // namespace Korureg
