#pragma once

// An agent in a few lines: it keeps chips, remembers what was written to them in the shadow tables
// of its state directory, and serves the socket that korureg and others talk to (docs/Agent.md).
//
//     Board::Agent agent;
//     agent.chipsAre({Board::ChipBuilder("power0", ...).chip()});   // or agent.follow(file)
//     agent.serve();
//     auto gain = agent.chip("power0")->field("config", "gain");
//     agent.run();
//
// One for a state directory, and one in a process; korud is one that follows a system file. Used on
// the framework's thread. An agent with an event loop of its own does not call run(): it waits for
// Orb::eventLoop().fd() and calls runPending().

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "board/Export.h"
#include "board/chips/BoardKeeper.h"
#include "board/chips/BoardWatch.h"
#include "board/chips/History.h"
#include "board/chips/InstanceLock.h"
#include "board/service/Server.h"

namespace Board {

struct AgentOptions {
  // Where the tables lie; empty for $KORU_STATE_DIR, /run/koru for root, or $XDG_RUNTIME_DIR/koru.
  std::string stateDirectory = {};
  // How chips are reached; an agent may answer for some of them itself.
  OpenTransport openTransport = Board::openTransport;
  Delays delays = {};
  // How long writes in flight are waited for in the end.
  std::chrono::milliseconds longestSettling{1000};
  // How many records of what was written to a chip are kept (History.h); 0 for none.
  uint64_t history = usualHistory;
};

class BOARD_EXPORT Agent {
 public:
  // Makes the state directory if need be, takes it for this process, and raises the limit of open
  // descriptors as far as that goes: a chip takes several. Throws std::runtime_error when this
  // process has an agent, another one has the directory, or others may write to it, and
  // std::system_error.
  explicit Agent(AgentOptions options = {});
  // Hangs up on clients and takes the chips down. Their tables stay. Not from inside of a call of
  // an observer.
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // One of these two says which chips there are. Chips whose tables agree with them are not
  // written; those that are gone are taken down.

  // Those of a system file, now and whenever it changes. A file that cannot be read is an error
  // now, FileError, and later leaves the chips as they are.
  void follow(const std::string& systemFile);
  // These. What is wrong with one (its device is not there) leaves the others alone. Throws
  // std::invalid_argument for two of one name.
  void chipsAre(std::vector<Chip> chips);

  // Reads the system file again, if there is one.
  void reload();

  // Lets clients connect at that path; empty for korud.sock in the state directory. Throws what the
  // constructor of Server throws.
  void serve(const std::string& socket = {});
  // Lets the figures of docs/Metrics.md be read there, as of Server::scrapeAt(); after serve().
  void serveMetrics(const std::string& place);

  // Serves the event loop until SIGTERM, SIGINT (Signals.h) or EventLoop::stop(); SIGHUP has the
  // system file read again.
  void run();

  const std::string& stateDirectory() const { return stateDirectory_; }
  BoardKeeper& keeper() { return keeper_; }
  // The chip, whose fields may be written; but for those that are sent once (a pulse), which only
  // BoardKeeper::write() knows of. Throws std::runtime_error when there is none of that name, or
  // one that was refused, which says why.
  Orb::Ptr<KoruRegFile::LogicalChip> chip(const std::string& name) const;

 private:
  const std::chrono::milliseconds longestSettling_;
  const std::string stateDirectory_;
  const InstanceLock lock_;
  BoardKeeper keeper_;
  std::unique_ptr<BoardWatch> board_;
  std::unique_ptr<Server> server_;
};

}  // namespace Board
