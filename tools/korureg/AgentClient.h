#pragma once

// A client of the agent's socket; docs/Agent.md describes what is said there. One request at a
// time, used on one thread.

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
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
  double timeout = 10;  // seconds
};

// Adds --socket and --state-dir to a command.
void addAgentOptions(CLI::App& command, AgentOptions& options);

class AgentClient {
 public:
  // An agent, if any listens. Throws Failure when that cannot be known.
  static std::optional<AgentClient> ifThere(const AgentOptions& options);

  // Throws Failure when nobody listens.
  explicit AgentClient(const AgentOptions& options);

  // The result of a request. Throws UsageError when it names what is not there or cannot be, and
  // Failure when it did not work out, or when there is no answer in time.
  nlohmann::ordered_json ask(const nlohmann::ordered_json& request);

 private:
  using Clock = std::chrono::steady_clock;

  void await(short events, Clock::time_point deadline) const;
  std::string line(Clock::time_point deadline);
  std::string patienceText() const;

  struct Unconnected {};
  AgentClient(const AgentOptions& options, Unconnected);
  int connect();
  [[noreturn]] void throwUnreachable(int error) const;

  std::string path_;
  std::chrono::microseconds patience_;
  Orb::Descriptor socket_;
  std::string in_;
};

}  // namespace korureg
