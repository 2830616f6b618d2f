// Requests about one chip, register or field cost the same on every board, however many others
// there are.

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <fstream>
#include <memory>

#include "board/chips/BoardKeeper.h"
#include "board/chips/BoardWatch.h"
#include "board/description/ChipBuilder.h"
#include "board/description/SystemFile.h"
#include "board/service/internal/Requests.h"
#include "testing/StateDirectory.h"

namespace {

using Board::Json;

constexpr uint32_t fieldsOfARegister = 4;

double cpuTime() {
  timespec now = {};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// A chip with so many registers, each with four logical fields and four of its own that are read
// live, and others that are refused.
class OneBoard {
 public:
  OneBoard(uint32_t registers, size_t others, size_t chips = 1)
      : keeper_({.stateDirectory = state_.path()}) {
    std::ofstream map(state_.file("map.csv"));
    map << "number,name,type,writeable,width\n";
    for (uint32_t i = 0; i < registers; ++i) map << fmt::format("{},R{},cfg,true,32\n", i, i);
    map.close();
    Board::Description board;
    for (size_t chip = 0; chip < chips; ++chip) {
      board.chips.push_back(
          Board::ChipBuilder(fmt::format("chip{}", chip), state_.file("map.csv"), "memory").chip());
      for (uint32_t i = 0; i < registers; ++i) describe(board.chips.back(), i);
    }
    for (size_t i = 0; i < others; ++i) {
      board.problems.push_back({fmt::format("a_chip_like_many_others_{}", i), 0, "", "is refused"});
    }
    keeper_.boardIs(board);
  }

  Json ask(const Json& request) {
    Json answer;
    const auto list = [&](const std::unique_ptr<Board::Pieces>& pieces) {
      std::string text;
      size_t before = 0;
      for (bool isMore = true; isMore; before = text.size()) {
        isMore = pieces->next(text);
        longestPiece = std::max(longestPiece, text.size() - before);
      }
      answer = Json::parse(text);
    };
    const auto reply = [&](const std::string& made) { answer = Json::parse(made); };
    requests_.handle(request, reply, {{}, {}, list});
    return answer;
  }
  // What it takes to answer it some times, in seconds of this thread: the best of several tries.
  double cost(const Json& request) {
    double least = 1e9;
    for (int tries = 0; tries < 7; ++tries) {
      const double before = cpuTime();
      for (int i = 0; i < 50; ++i) ask(request);
      least = std::min(least, cpuTime() - before);
    }
    return least;
  }

  size_t longestPiece = 0;  // of the answers that were lists

 private:
  static void describe(Board::Chip& chip, uint32_t reg) {
    for (uint8_t i = 0; i < fieldsOfARegister; ++i) {
      const Board::Bits bits{static_cast<uint8_t>(8 * i), 8};
      Board::Field field;
      field.logicalRegister = fmt::format("reg{}", reg);
      field.logicalField = field.physicalField = fmt::format("f{}", i);
      field.physicalRegister = fmt::format("R{}", reg);
      field.logical = field.physical = bits;
      field.address = 4 * reg;
      chip.fields.push_back(field);
      chip.statusFields.push_back({field.physicalRegister, field.physicalField, bits, 4 * reg, {}});
    }
  }
  const Testing::StateDirectory state_;
  Board::BoardKeeper keeper_;
  Board::Requests requests_{keeper_};
};

TEST(BoardSize, IsNoMatterToRequestsAboutOneOfMany) {
  OneBoard small(4, 1);
  OneBoard large(4000, 4000);
  const std::pair<Json, const char*> table[] = {
      {{{"op", "chip.show"}}, nullptr},
      {{{"op", "field.read"}, {"register", "reg2"}, {"field", "f1"}}, nullptr},
      {{{"op", "field.read"}, {"register", "R2"}, {"field", "f1"}}, nullptr},
      {{{"op", "field.read"}, {"register", "R2"}, {"field", "no"}}, "noSuchField"},
      {{{"op", "field.read"}, {"register", "no"}, {"field", "no"}}, "noSuchRegister"},
      {{{"op", "field.write"}, {"register", "reg2"}, {"field", "f1"}, {"value", 3u}}, nullptr},
      {{{"op", "register.read"}, {"register", "reg2"}}, nullptr},
      {{{"op", "register.read"}, {"register", "R2"}}, nullptr},
      {{{"op", "register.read"}, {"register", "no"}}, "noSuchRegister"},
      {{{"op", "register.write"}, {"register", "reg2"}, {"value", 3u}}, nullptr},
      {{{"op", "hw.read"}, {"register", "R2"}}, nullptr},
      {{{"op", "field.list"}, {"register", "reg2"}}, nullptr},
      {{{"op", "field.list"}, {"register", "R2"}}, nullptr},
      {{{"op", "chip.list"}, {"limit", 1u}}, nullptr},
  };
  for (const auto& [asked, kind] : table) {
    Json request = asked;
    request["chip"] = "chip0";
    SCOPED_TRACE(request.dump());
    const Json answer = large.ask(request);
    EXPECT_EQ(answer["ok"], kind == nullptr) << answer;
    EXPECT_EQ(answer.value("error", Json::object()).value("kind", ""), kind ? kind : "");
    EXPECT_LT(large.cost(request), 4 * small.cost(request));
  }
}

// However many fields there are; and of many chips a piece at a time.
TEST(BoardSize, IsNoMatterToFiguresButForTheChips) {
  const Json request = {{"op", "metrics"}};
  OneBoard narrow(2, 0, 100);
  OneBoard wide(100, 0, 100);
  const double cost = wide.cost(request);
  EXPECT_LT(cost, 2 * narrow.cost(request));
  RecordProperty("seconds of 50 scrapes of 100 chips", std::to_string(cost));
  OneBoard long_(2, 4000);
  EXPECT_GT(long_.ask(request)["result"]["text"].get<std::string>().size(), 100'000u);
  EXPECT_LT(long_.longestPiece, 20'000u);
}

// A reload of what is in force reads the file, and does not take it apart.
TEST(BoardSize, IsNoMatterToAReloadOfTheSameFile) {
  const Testing::StateDirectory state;
  std::ofstream map(state.file("map.csv"));
  std::ofstream board(state.file("board.toml"));
  std::string logical;
  map << "number,name,type,writeable,width\n";
  board << "[[chip]]\nname = \"chip0\"\nregister_map = \"map.csv\"\nmemory = true\n";
  for (int i = 0; i < 3000; ++i) {
    map << fmt::format("{},R{},cfg,true,32\n", i, i);
    board << fmt::format("[chip.physical.R{}]\nf = {{ bits = \"7:0\" }}\n", i);
    logical += fmt::format("[chip.logical.r{}]\nf = {{ to = \"R{}.f\" }}\n", i, i);
  }
  map.close();
  board << logical << std::flush;
  Board::BoardKeeper keeper({.stateDirectory = state.path()});
  Board::BoardWatch watch(keeper, state.file("board.toml"));
  // (Maps that it has just heard of are read once more.)
  for (int i = 0; i < 2; ++i) watch.load();
  double begun = cpuTime();
  static_cast<void>(Board::readFile(state.file("board.toml")));
  const double ofReading = cpuTime() - begun;
  begun = cpuTime();
  watch.load();
  EXPECT_LT(cpuTime() - begun, ofReading / 5);
  // What has changed is seen, in the map as well.
  std::ofstream(state.file("map.csv"), std::ios::app) << "3000,NEW,cfg,true,32\n";
  const auto life = keeper.lifeOf("chip0");
  watch.load();
  EXPECT_TRUE(life.expired());
  std::ofstream(state.file("board.toml")) << "chip = []\n";
  watch.load();
  EXPECT_FALSE(keeper.hasChips());
}

}  // namespace
