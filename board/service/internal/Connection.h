#pragma once

// One client of the agent's socket: lines in, lines out. Nothing that a client does or fails to do
// holds up anybody else: a line that is too long is refused and skipped, and a client that does not
// read what it is sent is dropped. One that says that it sends no more is sent what it waits for.
// Used on the framework's thread, served on the event loop.

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "Orb/Descriptor.h"
#include "Orb/EventLoop.h"

namespace Board {

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  struct Callbacks {
    // An exception ends the connection; a line is handed over once.
    std::function<void(Connection& from, std::string_view line)> line;
    std::function<void(Connection& from)> lineTooLong;
    // The other side is gone, or was dropped; may destroy the connection.
    std::function<void(Connection& from)> closed;
  };

  static constexpr size_t longestLine = 1 << 16;
  // What may wait to be read by the client.
  static constexpr size_t mostUnread = 1 << 22;

  // Made with std::make_shared, then start().
  Connection(Orb::Descriptor socket, Callbacks callbacks);
  void start();

  // Appends the line end. After the connection has closed nothing is sent.
  void send(std::string_view line);
  // Held for an answer that may come later: as long as one is, the other side may have ended what
  // it sends, and the connection stays.
  std::shared_ptr<void> awaited();

 private:
  struct Awaited;

  void readSome();
  void takeLines();
  bool take(std::string_view line);
  void flush();
  void dropSent();
  void closeIfDone();
  void close();

  Orb::Descriptor socket_;
  const Callbacks callbacks_;
  std::string in_;
  bool skipping_ = false;  // the rest of a line that was too long
  bool hasEnded_ = false;  // nothing more comes from the other side
  size_t awaited_ = 0;     // answers
  std::string out_;
  size_t sent_ = 0;  // of out_
  std::unique_ptr<Orb::EventWatch> readWatch_;
  Orb::Descriptor writeSocket_;  // a duplicate, for a watch of its own
  std::unique_ptr<Orb::EventWatch> writeWatch_;
};

}  // namespace Board
