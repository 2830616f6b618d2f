// How often the agent tries again: with delays that grow up to a limit, and are short again after a
// success.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "Orb/Trace.h"
#include "board/chips/BoardKeeper.h"
#include "board/chips/BoardWatch.h"
#include "board/description/SystemFile.h"
#include "board/devices/MemoryWindow.h"
#include "testing/Expect.h"
#include "tests/agent/Chips.h"

namespace {

// The delays that are traced.
class Delays : public Orb::TraceSink {
 public:
  void message(std::string_view, int, std::string_view text) override {
    static const std::regex delay("in (\\d+) ms");
    std::match_results<std::string_view::const_iterator> found;
    if (std::regex_search(text.begin(), text.end(), found, delay)) seen.push_back(found[1]);
  }
  std::vector<std::string> seen;
};

class Failing : public Board::MemoryWindow {
 public:
  Failing(const char* map, const int& failures) : MemoryWindow(map, ""), failures_(failures) {}
  void regWrite(const char* name, uint32_t value) override {
    if (failures_ > 0) throw std::runtime_error("no");
    MemoryWindow::regWrite(name, value);
  }

 private:
  const int& failures_;
};

TEST(Delays, GrowUpToALimitAndBeginAnew) {
  const Testing::StateDirectory state;
  std::ofstream(state.file("map.csv")) << Korud::registerMap;
  std::ofstream(state.file("board.toml")) << Korud::chip0;
  const auto delays = std::make_shared<Delays>();
  const auto before = Orb::traceSinkIs(delays);
  int toOpen = 5;
  int toWrite = 0;
  Board::BoardKeeper agent(
      {.stateDirectory = state.path(),
       .delays = {std::chrono::milliseconds(1), std::chrono::milliseconds(5)},
       .openTransport = [&](KoruRegFile::TransportMethod& transport,
                            const Board::Chip& chip) -> Board::PostingTransport* {
         if (toOpen-- > 0) throw std::runtime_error("no");
         transport.implPtrIs(std::make_unique<Failing>(chip.registerMap.c_str(), toWrite));
         return nullptr;
       }});
  agent.boardIs(Board::readFile(state.file("board.toml")));
  const auto upAgain = [&] {
    Korud::until([&] {
      Orb::eventLoop().runFor(std::chrono::milliseconds(1));
      if (agent.health("chip0").attempts >= 4) toWrite = 0;
      return agent.health("chip0").state == Board::ChipState::up;
    });
    return std::exchange(delays->seen, {});
  };
  EXPECT_THAT(upAgain(), testing::ElementsAre("1", "2", "4", "5", "5"));
  EXPECT_EQ(agent.health("chip0").attempts, 0u);
  for (int times = 0; times < 2; ++times) {
    if (times == 1) {  // brought up anew, with nothing to rewrite
      toOpen = 2;
      std::ofstream(state.file("board.toml"))
          << Korud::replaced(Korud::chip0, "value = 3", "value = 4");
      agent.boardIs(Board::readFile(state.file("board.toml")));
      EXPECT_THAT(upAgain(), testing::ElementsAre("1", "2"));
    }
    toWrite = 1;
    agent.logicalChip("chip0")->fieldWrite("wide", "all", static_cast<uint32_t>(times + 1));
    EXPECT_THAT(upAgain(), testing::ElementsAre("1", "2", "4", "5"));
    EXPECT_EQ(agent.health("chip0").attempts, 0u);
  }
  Orb::traceSinkIs(before);
}

// A map that cannot be read for another reason each time: each look is traced.
class Obstacle : public Orb::TraceSink {
 public:
  explicit Obstacle(std::string path) : path_(std::move(path)) {}
  void message(std::string_view, int, std::string_view) override {
    if (++looks % 2 == 0) ::rmdir(path_.c_str());
    if (looks % 2 == 1) ::mkdir(path_.c_str(), 0700);
  }
  int looks = 0;

 private:
  const std::string path_;
};

TEST(Delays, OfAFileThatCannotBeReadAreLimited) {
  const Testing::StateDirectory state;
  std::ofstream(state.file("board.toml"))
      << Korud::replaced(Korud::chip0, "\"map.csv\"", "\"maps/map.csv\"");
  std::filesystem::create_directory(state.file("maps"));
  const auto obstacle = std::make_shared<Obstacle>(state.file("maps/map.csv"));
  const auto before = Orb::traceSinkIs(obstacle);
  Board::BoardKeeper agent({.stateDirectory = state.path()});
  Board::BoardWatch board(agent, state.file("board.toml"),
                          {std::chrono::milliseconds(1), std::chrono::milliseconds(2)});
  board.load();
  const auto begin = std::chrono::steady_clock::now();
  Testing::waitFor([&] { return obstacle->looks >= 14; });
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4)) << "8 s without";
  Orb::traceSinkIs(before);
}

}  // namespace
