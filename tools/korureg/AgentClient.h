#pragma once

// A client of the agent's socket; docs/Agent.md describes what is said there. One request at a
// time, used on one thread.

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "Orb/Descriptor.h"
#include "korureg/Command.h"

namespace korureg {

// Which agent, and what of it, as given on the command line.
struct AgentOptions {
  std::string socket;
  std::string stateDirectory;
  std::string chip;
  std::string reg;
  std::string field;
  std::string value;
  bool force = false;
};

// Adds --socket and --state-dir to a command.
void addAgentOptions(CLI::App& command, AgentOptions& options);

class AgentClient {
 public:
  // Throws Failure when nobody listens.
  explicit AgentClient(const AgentOptions& options);

  // The result of a request. Throws UsageError when it names what is not there or cannot be, and
  // Failure when it did not work out.
  nlohmann::ordered_json ask(const nlohmann::ordered_json& request);

 private:
  std::string line();

  const std::string path_;
  Orb::Descriptor socket_;
  std::string in_;
};

}  // namespace korureg
