// A history that was damaged: what is read of it are records that were written, or it is refused.

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "Orb/EventLoop.h"
#include "Orb/Trace.h"
#include "board/agent/Agent.h"
#include "board/chips/History.h"
#include "board/description/SystemFile.h"
#include "fuzz/Input.h"
#include "testing/StateDirectory.h"

namespace {

constexpr const char* board = R"([[chip]]
name = "c"
register_map = "map.csv"
memory = true
[chip.physical.CTRL]
EN = { bits = "7:0" }
[chip.logical.ctrl]
en = { to = "CTRL.EN" }
)";
constexpr uint32_t writes = 40;

// As an agent leaves it.
std::string soundHistory() {
  const Testing::StateDirectory state;
  std::ofstream(state.file("map.csv")) << "number,name,type,writeable,width\n0,CTRL,cfg,true,16\n";
  {
    Board::Agent agent({.stateDirectory = state.path(), .history = 32});
    agent.chipsAre(Board::readText(board, state.file("board.toml")).chips);
    for (uint32_t i = 1; i <= writes; ++i) agent.chip("c")->fieldWrite("ctrl", "en", i);
    Orb::eventLoop().runPending();
  }
  std::ifstream in(Board::historyPath(state.path(), "c"), std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void look(const std::string& path) {
  try {
    uint64_t last = 0;
    for (const auto& record : Board::HistoryReader(path).after(0)) {
      Fuzz::require(record.sequence > last, "records out of their order");
      Fuzz::require(!record.hasField || record.value <= writes, "a value that was never written");
      last = record.sequence;
    }
  } catch (const std::runtime_error&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Orb::traceLevelIs("*", -1);
  static const std::string sound = soundHistory();
  static const Testing::StateDirectory state;
  Fuzz::Input input(data, size);
  std::string bytes = sound;
  while (!input.empty()) {
    const uint32_t place = input.number(3) % static_cast<uint32_t>(bytes.size());
    const uint8_t value = input.byte();
    if (value == 0xFF) bytes.resize(place + 1);
    bytes[place] = static_cast<char>(value);
  }
  const std::string path = state.file("history");
  std::ofstream(path, std::ios::binary) << bytes;
  look(path);
  return 0;
}
