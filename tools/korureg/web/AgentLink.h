#pragma once

// A client of the agent's socket that waits for nothing: what is asked is answered later, by a
// call, and events are told as they come. One thread, which serves it.

#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "Orb/Descriptor.h"
#include "korureg/web/Clock.h"

namespace korureg::web {

class AgentLink {
 public:
  using Json = nlohmann::ordered_json;
  // The whole answer, and its text; or null, and the text says why there is none.
  using Then = std::function<void(const Json* answer, const std::string& text)>;
  struct Ears {
    std::function<void(const Json&)> event;
    std::function<void()> changed;  // the agent has come, or gone
  };

  // `patience` is how long an answer is waited for.
  AgentLink(std::string path, Clock::duration patience, Ears ears)
      : path_(std::move(path)), patience_(patience), ears_(std::move(ears)) {}

  // Whether it is there now; why() says why not.
  bool connect();
  bool isThere() const { return static_cast<bool>(socket_); }
  const std::string& why() const { return why_; }

  // Looks for an agent that is not there. `then` is called in any case, perhaps at once.
  void ask(Json request, Then then);

  // Negative while there is no agent.
  int descriptor() const { return socket_.get(); }
  bool hasToSend() const { return sent_ < out_.size(); }
  void serve(Clock::time_point now);
  // When an answer has been waited for too long.
  Clock::time_point next() const;

 private:
  struct Question {
    Then then;
    Clock::time_point deadline;
  };

  void lose(const std::string& why);
  void send();
  void receive();
  void take(const std::string& line);

  const std::string path_;
  const Clock::duration patience_;
  const Ears ears_;
  Orb::Descriptor socket_;
  std::string why_;
  std::string out_;
  size_t sent_ = 0;
  std::string in_;
  size_t searched_ = 0;  // of it, without an end of a line
  uint64_t last_ = 0;    // number of a question
  uint64_t lives_ = 0;   // of the connection
  std::map<uint64_t, Question> questions_;
};

}  // namespace korureg::web
