#pragma once

// How the commands that ask the agent are described, and hung into the command line.

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "korureg/AgentClient.h"
#include "korureg/Command.h"

namespace korureg {

// What was given on the command line.
struct AgentArguments {
  AgentOptions agent;
  std::string chip;
  std::string reg;
  std::string field;
  std::string value;
  std::string file;
  std::string glob;
  std::string format;
  std::vector<std::string> names;  // of registers or fields, or assignments
  double every = 0;
  bool force = false;
  bool raw = false;
  bool alone = false;
  bool live = false;
  bool all = false;
  bool bits = false;
  bool yes = false;
  bool fix = false;
};

// What a command may take, in the order in which operands stand.
struct Take {
  enum : unsigned {
    nothing = 0,
    chip = 1 << 0,
    reg = 1 << 1,
    field = 1 << 2,
    value = 1 << 3,
    file = 1 << 4,
    registers = 1 << 5,
    fields = 1 << 6,
    assignments = 1 << 7,
    force = 1 << 8,
    raw = 1 << 9,
    alone = 1 << 10,
    live = 1 << 11,
    all = 1 << 12,
    bits = 1 << 13,
    yes = 1 << 14,
    fix = 1 << 15,
    match = 1 << 16,
    every = 1 << 17,
    format = 1 << 18,
  };
};

struct AgentCommand {
  const char* name;
  const char* text;
  const char* example;
  unsigned needs;  // operands
  unsigned may;    // options, and operands that may be left out
  int (*run)(const AgentArguments& arguments, const Options& options);
};

void addAgentCommand(Command family, const AgentCommand& command, Options& options);

// A request about the chip, register, field and value that were given, as far as they were.
nlohmann::ordered_json request(const char* op, const AgentArguments& arguments);

// Asks for a change, which is silent when it works.
int change(const nlohmann::ordered_json& request, const AgentArguments& arguments,
           const Options& options);

}  // namespace korureg
