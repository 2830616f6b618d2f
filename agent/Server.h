#pragma once

// The agent's socket: a Unix stream socket with JSON objects, one a line; docs/Agent.md describes
// them. Used on the framework's thread, served on the event loop.

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "agent/Agent.h"
#include "agent/Connection.h"
#include "agent/Requests.h"

namespace Agent {

class Server : public Agent::Observer {
 public:
  // Listens at `path`, with mode 0660. Throws std::runtime_error when somebody listens there, and
  // std::system_error.
  Server(Agent& agent, std::string path);
  // Hangs up on all clients.
  ~Server() override;
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  void chipChanged(const std::string& chip) override;
  void fieldChanged(const std::string& chip, const KoruRegFile::LogicalFieldName& field) override;

 private:
  using Client = std::shared_ptr<Connection>;

  void acceptAll();
  void handle(Connection& from, std::string_view line);
  void publish(const std::string& chip, const std::string& event);

  Agent& agent_;
  Requests requests_;
  const std::string path_;
  Orb::Descriptor listener_;
  std::map<const Connection*, Client> clients_;
  // The chips that a client wants to hear of; the empty name stands for all.
  std::map<const Connection*, std::set<std::string>> subscriptions_;
  std::unique_ptr<Orb::EventWatch> watch_;
};

}  // namespace Agent
