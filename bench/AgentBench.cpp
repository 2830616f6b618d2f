// What it takes to write a field from the shell: korureg, the agent's socket, and the road down to
// the register, beside a program that does nothing.

#include <fmt/format.h>
#include <signal.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Ratio.h"
#include "testing/Process.h"
#include "testing/StateDirectory.h"

namespace {

constexpr const char* board = R"([[chip]]
name = "chip0"
register_map = "map.csv"
memory = true
[chip.physical.CTRL]
mode = { bits = "7:0" }
[chip.logical.ctrl]
mode = { to = "CTRL.mode" }
)";

int printFigures() {
  const Testing::StateDirectory state;
  std::ofstream(state.file("map.csv")) << "number,name,type,writeable,width\n0,CTRL,cfg,true,32\n";
  std::ofstream(state.file("board.toml")) << board;
  Testing::Process korud(
      {{KORUD_PROGRAM, "--config", state.file("board.toml"), "--state-dir", state.path()}});
  const auto ask = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), KORUREG_PROGRAM);
    arguments.insert(arguments.end(), {"--socket", state.file("korud.sock")});
    return Testing::run({arguments}).exitCode;
  };
  for (int tries = 0; ask({"chip", "list"}) != 0; ++tries) {
    if (tries == 1000) throw std::runtime_error("korud does not come up");
  }
  uint32_t value = 0;
  const auto write = [&] {
    for (int i = 0; i < 20; ++i) {
      if (ask({"field", "write", "chip0", "ctrl", "mode", std::to_string(++value & 0xFF)}) != 0) {
        throw std::runtime_error("korureg failed");
      }
    }
  };
  const auto nothing = [] {
    for (int i = 0; i < 20; ++i) Testing::run({{"/bin/true"}});
  };
  Bench::Figures figures("the agent from the shell");
  figures.add("korureg field write / /bin/true", Bench::medianRatio(write, nothing), 15);
  korud.signal(SIGTERM);
  korud.wait();
  return figures.exitStatus();
}

}  // namespace

int main() { return printFigures(); }
