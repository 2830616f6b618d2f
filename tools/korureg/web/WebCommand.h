#pragma once

// korureg web: its command line.

#include <functional>
#include <string>

#include "korureg/AgentClient.h"
#include "korureg/Command.h"

namespace korureg {

// What was given on the command line.
struct WebArguments {
  AgentOptions agent;
  std::string listen = "127.0.0.1:8017";
  bool write = false;
};

using RunWeb = std::function<int(const WebArguments&)>;

// `run` is copied.
void addWebCommand(Command app, const RunWeb& run);

}  // namespace korureg
