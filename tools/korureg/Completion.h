#pragma once

// What could stand at the end of a command line: for the shells' completion. Nothing is accessed
// but an agent that is there, and a map that was named; neither makes it wait for long.

#include <map>
#include <string>
#include <vector>

namespace korureg {

// An operand that is being typed.
struct OperandPlace {
  std::string family;                          // "field", "hw"; empty for a command without one
  std::string command;                         // "read"
  std::string operand;                         // as the command calls it: "CHIP", "REGISTER"
  std::vector<std::string> operands;           // before it
  std::map<std::string, std::string> options;  // that were given a value, by name
};

// The names that the operand may have; none when nobody knows.
std::vector<std::string> namesFor(const OperandPlace& place);

// korureg completion
class Command;
void addCompletionCommand(Command app);

}  // namespace korureg
