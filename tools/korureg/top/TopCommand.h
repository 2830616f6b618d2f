#pragma once

// korureg top: its command line.

#include <functional>
#include <string>

#include "korureg/AgentClient.h"
#include "korureg/Command.h"

namespace korureg {

// What was given on the command line.
struct TopArguments {
  AgentOptions agent;
  std::string chip;
  bool tables = false;
  std::string config;
};

using RunTop = std::function<int(const TopArguments&)>;

// `run` is copied.
void addTopCommand(Command app, const RunTop& run);

}  // namespace korureg
