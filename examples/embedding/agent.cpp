// An agent of one's own, the short way: it describes a chip by the names of its register map,
// writes a field, and keeps serving korureg. What was written survives a restart, however the
// process ends.
//
//     embedding-agent examples/maps/ina219.csv 2 &
//     korureg field read power0 config gain

#include "board/agent/Agent.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "board/description/ChipBuilder.h"

namespace {

// A chip on a bus has another transport: "i2c", "/dev/i2c-1:0x40,word-high-first".
Board::Chip power(const char* map) {
  return Board::ChipBuilder("power0", map, "memory", "power0.window")
      .field({.name = "config.gain",
              .bits = "CONFIGURATION[12:11]",
              .value = "320mV",
              .values = {{"40mV", 0}, {"80mV", 1}, {"160mV", 2}, {"320mV", 3}},
              .description = "the range of the shunt's voltage"})
      .status({.name = "BUS_VOLTAGE", .bits = "BUS_VOLTAGE[15:3]", .unit = "V", .scale = 0.004})
      .chip();
}

void serve(const char* map, const char* value) {
  Board::Agent agent;
  agent.chipsAre({power(map)});
  agent.serve();
  const auto gain = agent.chip("power0")->field("config", "gain");
  std::printf("gain is %u\n", gain.lastWritten());
  if (value) {
    gain.write(static_cast<uint32_t>(std::strtoul(value, nullptr, 0)));
    std::printf("gain is %u now\n", gain.lastWritten());
  }
  std::fflush(stdout);
  agent.run();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) {
    std::fprintf(stderr, "usage: embedding-agent MAP [VALUE]\n");
    return 2;
  }
  try {
    serve(argv[1], argc == 3 ? argv[2] : nullptr);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "embedding-agent: %s\n", e.what());
    return 1;
  }
}
