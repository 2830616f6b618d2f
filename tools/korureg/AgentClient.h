#pragma once

// A client of the agent's socket; docs/Agent.md describes what is said there. One request at a
// time, used on one thread.

#include <chrono>
#include <cstdint>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "Orb/Descriptor.h"
#include "korureg/Command.h"

namespace korureg {

// Which agent, as given on the command line.
struct AgentOptions {
  std::string socket;
  std::string stateDirectory;
  double timeout = 10;  // seconds
};

// Adds --socket, --state-dir and --timeout to a command.
void addAgentOptions(Command command, AgentOptions& options);

// Where its socket is.
std::string socketPath(const AgentOptions& options);

// The agent did not do what it was asked for, and says why; it takes the next request.
class Refusal : public Failure {
 public:
  using Failure::Failure;
};

// The request names what is not there; kind() is the agent's word for it.
class NoSuchName : public UsageError {
 public:
  NoSuchName(const std::string& what, const std::string& kind) : UsageError(what), kind_(kind) {}
  const std::string& kind() const { return kind_; }

 private:
  std::string kind_;
};

class AgentClient {
 public:
  // What is said of an answer that does not hold what docs/Agent.md promises.
  static constexpr const char* senseless = "the agent's answer makes no sense";

  // An agent, if any listens. Throws Failure when that cannot be known.
  static std::optional<AgentClient> ifThere(const AgentOptions& options);

  // Throws Failure when nobody listens.
  explicit AgentClient(const AgentOptions& options);

  // The result of a request. Throws UsageError when it names what is not there (with the nearest
  // names) or cannot be, Refusal when it did not work out, and another Failure when there is no
  // answer in time: nothing more can be asked then.
  nlohmann::ordered_json ask(const nlohmann::ordered_json& request);
  // The same, but without asking for names: throws NoSuchName.
  nlohmann::ordered_json askPlainly(const nlohmann::ordered_json& request);

  // Can be read (poll(2)) when the agent has said something.
  int descriptor() const { return socket_.get(); }

  // The next event, if there is one within that time, or at any time without one. Throws Failure
  // when the agent has hung up, or when nobody reads standard output any more.
  std::optional<nlohmann::ordered_json> event(std::optional<std::chrono::milliseconds> within);
  // One that is there already, for whoever prints none of them. Throws Failure when the agent has
  // hung up.
  std::optional<nlohmann::ordered_json> eventAtHand();

 private:
  using Clock = std::chrono::steady_clock;

  void await(short events, Clock::time_point deadline) const;
  bool receive();
  nlohmann::ordered_json firstEvent();
  std::optional<std::string> lineAtHand();
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
  std::deque<nlohmann::ordered_json> events_;  // that came while an answer was waited for
};

}  // namespace korureg
