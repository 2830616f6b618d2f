#pragma once

// Runs korureg as its users do.

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
  return {arguments, "", environment};
}

}  // namespace Korureg
