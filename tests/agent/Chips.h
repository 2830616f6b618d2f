#pragma once

// What tests of the agent's chips share: two of them, and how they are edited and left behind.

#include <gmock/gmock.h>
#include <signal.h>

#include <fstream>
#include <string>

#include "tests/agent/Korud.h"

namespace Korud {

inline std::string replaced(std::string text, const std::string& what, const std::string& with) {
  const size_t at = text.find(what);
  EXPECT_NE(at, std::string::npos) << what;
  return at == std::string::npos ? text : text.replace(at, what.size(), with);
}

inline const std::string chip1 = replaced(replaced(chip0, "chip0", "chip1"), "window0", "window1");
inline const std::string config = "KoruRegFile/shadowFieldsConfig/chip0";
inline const std::string status = "KoruRegFile/shadowFieldsStatus/chip0";

class Chips : public testing::Test {
 protected:
  // Waits for the agent to have seen an edit: a chip of its own appears with it.
  void edit(const std::string& board) {
    const std::string name = "seen" + std::to_string(++edits_);
    agent.write("board.toml", board + "[[chip]]\nname = \"" + name +
                                  "\"\nregister_map = \"map.csv\"\nmemory = true\n");
    agent.waitForState(name, "up");
  }
  // The turn of the loop that answers the second one has seen what happened before.
  static void expectSeen(Client& client) {
    for (int turn = 0; turn < 2; ++turn) client.chip("chip0");
  }
  // Two chips that have been given values; the agent was killed, and then the first chip was reset.
  void leaveBehind() {
    agent.write("board.toml", chip0 + chip1);
    Client client = agent.startAndConnect();
    for (const char* name : {"chip0", "chip1"}) {
      client.write("ctrl", "mode", 5, name);
      client.write("wide", "all", 77, name);
    }
    agent.stop(SIGKILL);
    std::ofstream(agent.file("window0"), std::ios::binary | std::ios::in).write("\xEE\0\0\0", 4);
  }
  void expectUntouched(Client& client, const char* name) {
    EXPECT_EQ(client.chip(name)["state"], "up");
    EXPECT_EQ(client.chip(name)["rewrites"], 0);
    EXPECT_EQ(client.hardware("CTRL", name), 0x50);
  }

  Agent agent;
  int edits_ = 0;
};

}  // namespace Korud
