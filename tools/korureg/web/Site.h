#pragma once

// What the page may ask for, and who answers: the agent, its files, or what was sampled. One
// thread.

#include <string>

#include "korureg/web/AgentLink.h"
#include "korureg/web/Feed.h"
#include "korureg/web/HttpServer.h"
#include "korureg/web/Plots.h"
#include "korureg/web/Presence.h"
#include "korureg/web/ReadGuard.h"
#include "korureg/web/WebCommand.h"

namespace korureg::web {

class Site {
 public:
  // Throws Failure when there is no agent.
  explicit Site(const WebArguments& arguments);

  Offers offers();
  AgentLink& link() { return link_; }
  void serve(Clock::time_point now);
  Clock::time_point next() const;

 private:
  using Json = nlohmann::ordered_json;

  void posted(const std::string& path, const std::string& body, const Answer& answer);
  void ask(const Json& request, const Answer& answer);
  void readHardware(const Json& request, bool isConfirmed, const Answer& answer);
  void passOn(Json request, const Answer& answer);
  Reply history(const Json& request) const;
  Reply plot(const Json& request);
  std::shared_ptr<Stream> listens();
  void agentChanged();
  void heard(const Json& event);
  Json state() const;

  const bool mayWrite_;
  const std::string historyDirectory_;
  Feed feed_;
  AgentLink link_;
  ReadGuard guard_;
  Plots plots_;
  Presence presence_;
  bool isSubscribed_ = false;
  Clock::time_point look_ = never;  // for the agent
};

}  // namespace korureg::web
