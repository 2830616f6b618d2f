#pragma once

// One client of the agent's socket: lines in, lines out. Nothing that a client does or fails to do
// holds up anybody else: a line that is too long is refused and skipped, a client that sends very
// much or asks for long lists gets a piece of its work done a turn, a list is made as far as the
// client reads it, and a client that does not read what it is sent is dropped. One that says that
// it sends no more is sent what it waits for. Used on the framework's thread, served on the event
// loop.
//
// While a list is being sent, no further line is taken, and what else is to be sent waits behind
// it.

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "Orb/Descriptor.h"
#include "Orb/EventLoop.h"
#include "board/chips/History.h"
#include "board/service/internal/Pieces.h"
#include "board/service/internal/Turns.h"

namespace Board {

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  struct Callbacks {
    // An exception ends the connection; a line is handed over once.
    std::function<void(Connection& from, std::string_view line)> line;
    std::function<void(Connection& from)> lineTooLong;
    // The other side is gone, or was dropped; may destroy the connection.
    std::function<void(Connection& from)> closed;
    // Before lines that have come are handed over.
    std::function<void()> begins = {};
    // Before answers to them are sent.
    std::function<void()> ends = {};
  };

  static constexpr size_t longestLine = 1 << 16;
  // What may wait to be read by the client, beside lists and the last line.
  static constexpr size_t mostUnread = 1 << 22;
  // What may wait when a line is offered.
  static constexpr size_t mostOffered = 1 << 20;
  // What is made of a list before the client has read it.
  static constexpr size_t mostAhead = 1 << 18;
  // How long the work for one client goes on before others are served.
  static constexpr std::chrono::microseconds longestTurn{1000};

  // Made with std::make_shared, then start(). Refers to the turns.
  Connection(Orb::Descriptor socket, Turns& turns, Callbacks callbacks);
  void start();

  // Appends the line end. After the connection has closed nothing is sent.
  void send(std::string_view line);
  // The same for a line that may be missing: it is left out while much waits for the client.
  void offer(std::string_view line);
  // The same for a line in pieces; called for a line that has been handed over, once at most.
  void send(std::unique_ptr<Pieces> list);
  // Who is at the other end.
  const Actor& peer() const { return peer_; }
  // Held for an answer that may come later: as long as one is, the other side may have ended what
  // it sends, and the connection stays.
  std::shared_ptr<void> awaited();
  // Goes on with what was left.
  void turn();

 private:
  struct Awaited;

  void readSome();
  void work();
  bool workOn();
  bool takeLine();
  bool take(std::string_view line);
  bool makeMore();
  void takenAll();
  void flush();
  void dropSent();
  size_t unsent() const { return out_.size() - sent_; }
  void waitForMore(bool isLeft);
  void closeIfDone();
  void close();

  Orb::Descriptor socket_;
  const Actor peer_;
  Turns& turns_;
  const Callbacks callbacks_;
  std::string in_;
  size_t taken_ = 0;        // of in_
  bool skipping_ = false;   // the rest of a line that was too long
  bool hasEnded_ = false;   // nothing more comes from the other side
  bool isWorking_ = false;  // what is made meanwhile is sent together
  bool hasTurn_ = false;    // to come
  size_t awaited_ = 0;      // answers
  std::string out_;
  size_t sent_ = 0;  // of out_
  std::unique_ptr<Pieces> list_;
  std::string behind_;  // what comes behind the list
  std::unique_ptr<Orb::EventWatch> readWatch_;
  Orb::Descriptor writeSocket_;  // a duplicate, for a watch of its own
  std::unique_ptr<Orb::EventWatch> writeWatch_;
};

}  // namespace Board
