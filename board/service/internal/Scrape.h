#pragma once

// Answers whoever asks for the board's figures over HTTP/1.1: one request a connection, which holds
// up nobody: the figures are made a piece at a time. A connection that has not asked, or has not
// read its answer, after a while is dropped, and so is the oldest one when there are too many. Used
// on the framework's thread, served on the event loop.

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "Orb/Descriptor.h"
#include "Orb/EventLoop.h"
#include "Orb/LoopTask.h"
#include "board/service/internal/Pieces.h"

namespace Board {

class Scrape {
 public:
  static constexpr size_t mostConnections = 16;
  static constexpr size_t longestRequest = 8192;

  // Listens at the path of a socket, or at 127.0.0.1:PORT or [::1]:PORT. Throws
  // std::invalid_argument for another place, std::runtime_error and std::system_error.
  Scrape(const std::string& place, std::function<std::unique_ptr<Pieces>()> figures);
  ~Scrape();
  Scrape(const Scrape&) = delete;
  Scrape& operator=(const Scrape&) = delete;

 private:
  struct Connection;
  using Connections = std::list<Connection>;

  void listen();
  void pause();
  void accept();
  void read(Connections::iterator at);
  void answer(Connections::iterator at);
  void make();
  void write(Connections::iterator at);

  const std::function<std::unique_ptr<Pieces>()> figures_;
  const std::string path_;  // of a socket; empty for a port
  const Orb::Descriptor listener_;
  const uint64_t node_;
  Connections connections_;
  Orb::LoopTask task_;  // makes the answers that are not whole
  std::unique_ptr<Orb::EventWatch> watch_;
};

}  // namespace Board
