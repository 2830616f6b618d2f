// One client of the agent, on a pair of sockets: what becomes of lines when one of them fails, and
// of the memory for what it has been sent.

#include <gmock/gmock.h>
#include <malloc.h>
#include <sys/socket.h>

#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "board/service/internal/Connection.h"
#include "testing/Sanitizers.h"

namespace {

class Connected : public testing::Test {
 protected:
  Connected() {
    int ends[2] = {};
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) throw std::runtime_error("no sockets");
    client = Orb::Descriptor(ends[0]);
    connection = std::make_shared<Board::Connection>(
        Orb::Descriptor(ends[1]), turns,
        Board::Connection::Callbacks{[this](Board::Connection&, std::string_view line) {
                                       lines.emplace_back(line);
                                       if (onLine) onLine();
                                       if (line == "bad") throw std::runtime_error("no");
                                     },
                                     [](Board::Connection&) {},
                                     [this](Board::Connection&) { closed = true; },
                                     {}});
    connection->start();
  }
  void send(std::string_view text) {
    ASSERT_EQ(::send(client.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
    Orb::eventLoop().runPending();
  }

  Board::Turns turns;
  Orb::Descriptor client;
  std::shared_ptr<Board::Connection> connection;
  std::vector<std::string> lines;
  std::function<void()> onLine;
  bool closed = false;
};

TEST_F(Connected, ALineIsHandedOverOnce) {
  send("good\nbad\nnever\n");
  Orb::eventLoop().runPending();
  EXPECT_THAT(lines, testing::ElementsAre("good", "bad"));
  EXPECT_TRUE(closed);
}

TEST_F(Connected, AnAnswerThatComesLaterIsWaitedFor) {
  auto awaited = connection->awaited();
  send("good\n");
  ::shutdown(client.get(), SHUT_WR);
  Orb::eventLoop().runPending();
  EXPECT_FALSE(closed);
  connection->send("answer");
  EXPECT_FALSE(closed);
  awaited.reset();
  EXPECT_TRUE(closed);
}

// As long as there is work, a client gets a piece of it a turn.
TEST_F(Connected, MuchWorkIsDoneInTurns) {
  onLine = [] { std::this_thread::sleep_for(2 * Board::Connection::longestTurn); };
  send("a\nb\nc\nd");
  EXPECT_LT(lines.size(), 3u);
  for (int turn = 0; turn < 8; ++turn) Orb::eventLoop().runPending();
  EXPECT_THAT(lines, testing::ElementsAre("a", "b", "c"));
  send("e\n");
  EXPECT_EQ(lines.back(), "de");
}

// Whoever reads finds all of them at once.
TEST_F(Connected, AnswersToOnePieceAreSentTogether) {
  int sent = 0;
  onLine = [&] {
    connection->send("answer");
    char piece[16];
    if (::recv(client.get(), piece, sizeof piece, MSG_DONTWAIT | MSG_PEEK) > 0) ++sent;
  };
  send("a\nb\nc\n");
  EXPECT_EQ(sent, 0);
  char all[64];
  EXPECT_EQ(::recv(client.get(), all, sizeof all, MSG_DONTWAIT), 3 * 7);
}

TEST_F(Connected, WhatWasReadTakesNoMemory) {
  if (Testing::sanitized) GTEST_SKIP() << "a sanitizer has its own memory";
  const std::string line((1 << 14) - 1, 'x');
  const auto inUse = [] {
    const auto info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
  };
  const size_t before = inUse();
  std::vector<char> piece(line.size() + 1);
  for (int i = 0; i < 4096; ++i) {
    connection->send(line);
    Orb::eventLoop().runPending();
    // A hundred lines behind.
    if (i < 100) continue;
    ASSERT_EQ(::recv(client.get(), piece.data(), piece.size(), MSG_WAITALL),
              static_cast<ssize_t>(piece.size()));
  }
  EXPECT_FALSE(closed);
  EXPECT_LT(inUse() - before, size_t{16} << 20);
}

}  // namespace
