#pragma once

// What the sweeps and the agent that they kill (AgentPeer.cpp) agree on: the board, the workload,
// and how a register is made of fields.

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Peer {

// Three registers; b of the second one is as wide as the register.
inline constexpr const char* registerMap =
    "number,name,type,writeable,width\n"
    "0,A,cfg,true,32\n"
    "3,B,cfg,true,32\n"
    "5,C,cfg,true,16\n"
    "6,D,cfg,true,32\n";
// The same registers at other addresses, some of them at each other's.
inline constexpr const char* movedMap =
    "number,name,type,writeable,width\n"
    "3,A,cfg,true,32\n"
    "0,B,cfg,true,32\n"
    "6,C,cfg,true,16\n"
    "5,D,cfg,true,32\n";
inline constexpr const char* board = R"([[chip]]
name = "chip0"
register_map = "map.csv"
memory = "window"
physical.A.low.bits = "7:0"
physical.A.high.bits = "31:24"
physical.B.all.bits = "31:0"
physical.C.flag.bits = 15
physical.C.rest.bits = "3:0"
logical.a.low = { to = "A.low", value = 0x11 }
logical.a.high = { to = "A.high", bits = "15:8" }
logical.b.all = { to = "B.all", value = 5 }
logical.c.flag = { to = "C.flag", bits = 0 }
logical.c.rest = { to = "C.rest", bits = "4:1", value = 9 }
)";

struct Field {
  const char* reg;
  const char* name;
  uint32_t address;
  unsigned start;
  uint32_t value;  // in the file
};
inline constexpr std::array fields = {Field{"a", "low", 0, 0, 0x11}, Field{"a", "high", 0, 24, 0},
                                      Field{"b", "all", 12, 0, 5}, Field{"c", "flag", 20, 15, 0},
                                      Field{"c", "rest", 20, 0, 9}};
using Values = std::array<uint32_t, fields.size()>;

// One step of the workload: a field, or several together, each with what their bits say of the
// value, from the first field on.
struct Step {
  size_t field;
  uint32_t value;
  std::array<unsigned, 3> together = {};  // how many bits each of them takes; 0 for none
};
inline std::map<size_t, uint32_t> valuesOf(const Step& step) {
  std::map<size_t, uint32_t> values;
  unsigned shift = 0;
  for (size_t i = 0; i < step.together.size() && step.together[i] != 0; ++i) {
    values[step.field + i] = step.value >> shift & ((1u << step.together[i]) - 1);
    shift += step.together[i];
  }
  if (values.empty()) values[step.field] = step.value;
  return values;
}
inline constexpr std::array workload = {
    Step{0, 0x22},
    Step{1, 0x33},
    Step{0, 0x22},
    Step{2, 0xFFFFFFFF},
    Step{3, 1},
    Step{3, 0x1F, {1, 4}},
    Step{0, 0},
    Step{2, 0},
    Step{4, 3},
    Step{1, 0},
    Step{3, 0x00, {1, 4}},
    Step{2, 0x77},
    Step{0, 0xabcd44, {8, 8, 8}},
    Step{2, 0x1b, {1, 1, 4}},
};

inline void apply(Values& values, const Step& step) {
  for (const auto& [field, value] : valuesOf(step)) values[field] = value;
}

// What the registers have to hold.
inline std::map<uint32_t, uint32_t> composed(const Values& values) {
  std::map<uint32_t, uint32_t> registers;
  for (size_t i = 0; i < fields.size(); ++i) {
    registers[fields[i].address] |= values[i] << fields[i].start;
  }
  return registers;
}

}  // namespace Peer
