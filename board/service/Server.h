#pragma once

// The agent's socket: a Unix stream socket with JSON objects, one a line; docs/Agent.md describes
// them. Clients get descriptors only as long as enough are left for the chips. Used on the
// framework's thread, served on the event loop.

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Orb/Descriptor.h"
#include "Orb/EventLoop.h"
#include "Orb/Seldom.h"
#include "board/Export.h"
#include "board/chips/BoardKeeper.h"

namespace Board {

class Connection;
class Requests;
class Scrape;
class Turns;

class BOARD_EXPORT Server : public BoardKeeper::Observer {
 public:
  static constexpr size_t mostClients = 512;

  // Listens at `path`, with mode 0660 and the group of $KORU_STATE_GROUP. Throws std::runtime_error
  // when somebody listens there, and std::system_error.
  Server(BoardKeeper& keeper, std::string path);
  // Hangs up on all clients.
  ~Server() override;
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Lets programs that gather figures read them over HTTP (docs/Metrics.md): at the path of a
  // socket, which has a '/' in it, or at 127.0.0.1:PORT or [::1]:PORT. Throws
  // std::invalid_argument for another place, and what the constructor throws.
  void scrapeAt(const std::string& place);

  void chipChanged(const std::string& chip) override;
  void fieldChanged(const std::string& chip, const KoruRegFile::LogicalFieldName& field) override;
  void fieldSent(const std::string& chip, const Orb::String& reg, const Orb::String& field,
                 uint32_t value) override;
  void chipDrifted(const std::string& chip, const Drift& drift) override;
  void chipWasReset(const std::string& chip, const std::string& why) override;
  void busAccessed(const std::string& chip, const BusAccess& access, uint64_t number) override;

 private:
  using Client = std::shared_ptr<Connection>;

  void listen();
  void acceptAll();
  void pause();
  std::string whyNot(const Orb::Descriptor& socket) const;
  void serve(Orb::Descriptor socket);
  void handle(Connection& from, std::string_view line);
  void publish(const std::string& chip, const std::string& event);
  std::vector<std::string> hearNoBus(const Connection& client);

  BoardKeeper& keeper_;
  const std::unique_ptr<Requests> requests_;
  const std::unique_ptr<Turns> turns_;
  std::unique_ptr<Scrape> scrape_;
  const std::string path_;
  Orb::Descriptor listener_;
  uint64_t node_ = 0;     // of the socket's file
  Orb::Seldom refusal_;   // of a client; each is told by itself, but not in the log
  Orb::Seldom shortage_;  // of descriptors
  std::map<const Connection*, Client> clients_;
  // The chips that a client wants to hear of; the empty name stands for all.
  std::map<const Connection*, std::set<std::string>> subscriptions_;
  // Those whose buses it wants to hear of.
  std::map<const Connection*, std::set<std::string>> busSubscriptions_;
  std::unique_ptr<Orb::EventWatch> watch_;  // of the listener, or until it is watched again
};

}  // namespace Board
