// An agent is killed, or a register write fails, at each point of a workload in turn. Whatever the
// point: after the next start no acknowledged write is lost, the registers hold what is configured,
// and nothing was written that need not be.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "board/chips/History.h"
#include "testing/Process.h"
#include "testing/StateDirectory.h"
#include "tests/agent/AgentPeer.h"
#include "tests/agent/Korud.h"

namespace {

namespace fs = std::filesystem;
using Korud::linesOf;
using Peer::Values;

void write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

struct Ending {
  bool killed = false;
  bool up = false;
  size_t acknowledged = 0;
  std::vector<uint32_t> fields;
  std::vector<std::string> writes;
};

class FaultSweep : public testing::Test {
 protected:
  FaultSweep() {
    write(state.file("map.csv"), Peer::registerMap);
    write(state.file("board.toml"), Peer::board);
    for (size_t i = 0; i < Peer::fields.size(); ++i) fromFile[i] = Peer::fields[i].value;
  }
  // As if the machine had just been switched on.
  void startOver() {
    for (const char* name : {"KoruRegFile", "korud", "window"}) fs::remove_all(state.file(name));
  }
  Ending run(bool works, unsigned killAt = 0, unsigned failAt = 0) {
    const auto outcome = Testing::run({{AGENT_PEER, state.path(), works ? "1" : "0",
                                        std::to_string(killAt), std::to_string(failAt)}});
    Ending ending;
    ending.killed = outcome.signal == SIGKILL;
    EXPECT_TRUE(ending.killed || outcome.exitCode == 0) << outcome.err;
    for (const std::string& line : linesOf(std::istringstream(outcome.out))) {
      if (line == "up") ending.up = true;
      if (line == "ack") ++ending.acknowledged;
      if (line.starts_with("write ")) ending.writes.push_back(line.substr(6));
      if (line.starts_with("field "))
        ending.fields.push_back(static_cast<uint32_t>(std::stoul(line.substr(6))));
    }
    return ending;
  }
  Values after(size_t steps) const {
    Values values = fromFile;
    for (size_t i = 0; i < steps; ++i) Peer::apply(values, Peer::workload[i]);
    return values;
  }
  // Everything in its place: the fields have the values of before or after the step that was on its
  // way, all of them, the registers hold them, and nothing is left over.
  void expectComplete(const Ending& ending, size_t acknowledged) {
    const Values before = after(acknowledged);
    const Values next = after(std::min(acknowledged + 1, Peer::workload.size()));
    ASSERT_EQ(ending.fields.size(), Peer::fields.size());
    Values found;
    for (size_t i = 0; i < found.size(); ++i) {
      found[i] = ending.fields[i];
    }
    EXPECT_THAT(found, testing::AnyOf(before, next));
    uint32_t window[6] = {};
    std::ifstream(state.file("window"), std::ios::binary)
        .read(reinterpret_cast<char*>(window), sizeof window);
    for (const auto& [address, value] : Peer::composed(found)) {
      EXPECT_EQ(window[address / sizeof value], value) << "address " << address;
    }
    for (const auto& left : fs::directory_iterator(state.file("korud"))) {
      EXPECT_THAT(left.path().filename(), testing::AnyOf("chip0.names", "chip0.history"));
    }
    expectHistory(acknowledged);
  }
  // It leads from the values of the file through what each acknowledged step left, in their order.
  void expectHistory(size_t acknowledged) const {
    Values values = fromFile;
    size_t steps = 0;
    const auto goOn = [&] {
      while (steps < acknowledged && values == after(steps + 1)) ++steps;
    };
    goOn();
    uint64_t last = 0;
    for (const auto& record :
         Board::HistoryReader(Board::historyPath(state.path(), "chip0")).after(0)) {
      EXPECT_GT(record.sequence, std::exchange(last, record.sequence));
      for (size_t i = 0; record.hasField && i < values.size(); ++i) {
        const bool isMeant =
            record.reg == Peer::fields[i].reg && record.field == Peer::fields[i].name;
        if (isMeant) values[i] = record.value;
      }
      goOn();
    }
    EXPECT_EQ(steps, acknowledged) << "the history lacks a write that was acknowledged";
  }

  Testing::StateDirectory state;
  Values fromFile = {};
};

TEST_F(FaultSweep, WithoutAFaultOnlyWhatChangesIsWritten) {
  const Ending first = run(true);
  EXPECT_EQ(first.acknowledged, Peer::workload.size());
  // All of them at first, for nobody knows what they hold; then one for each change.
  ASSERT_GE(first.writes.size(), 3u);
  const auto began = first.writes.begin() + 3;
  EXPECT_THAT(std::vector(first.writes.begin(), began),
              testing::UnorderedElementsAre("A 0x11", "B 0x5", "C 0x9"));
  EXPECT_THAT(std::vector(began, first.writes.end()),
              testing::ElementsAre("A 0x22", "A 0x33000022", "B 0xffffffff", "C 0x8009", "C 0x800f",
                                   "A 0x33000000", "B 0x0", "C 0x8003", "A 0x0", "C 0x0", "B 0x77",
                                   "A 0xcd000044", "B 0xab", "B 0x1", "C 0x8006"));
  const Ending second = run(false);
  EXPECT_THAT(second.writes, testing::IsEmpty());
  expectComplete(second, Peer::workload.size());
}

TEST_F(FaultSweep, AKillAtAnyPointLosesNothing) {
  for (unsigned at = 1;; ++at) {
    SCOPED_TRACE("killed at event " + std::to_string(at));
    startOver();
    const Ending first = run(true, at);
    if (!first.killed) {
      EXPECT_GT(at, 30u);
      break;
    }
    const Ending second = run(false);
    expectComplete(second, first.acknowledged);
    // Once it was up, at most the registers that were on their way are written, or written again.
    if (first.up) {
      EXPECT_LE(second.writes.size(), 2u) << testing::PrintToString(second.writes);
    }
    EXPECT_THAT(run(false).writes, testing::IsEmpty());
    if (HasFailure()) break;
  }
}

// A restart that has something to write, and is killed in turn: after a reset, or with another map,
// which is taken back then.
TEST_F(FaultSweep, AKilledRestartLosesNothing) {
  for (const bool moves : {false, true}) {
    for (unsigned at = 1;; ++at) {
      SCOPED_TRACE(fmt::format("killed at event {}{}", at, moves ? ", registers move" : ""));
      startOver();
      ASSERT_EQ(run(true).acknowledged, Peer::workload.size());
      write(state.file(moves ? "map.csv" : "korud/chip0.dirty"), moves ? Peer::movedMap : "");
      const Ending second = run(false, at);
      write(state.file("map.csv"), Peer::registerMap);
      const Ending third = run(false);
      expectComplete(third, Peer::workload.size());
      if (!second.killed) break;
      EXPECT_EQ(third.writes.size(), 3u);
      if (HasFailure()) return;
    }
  }
}

TEST_F(FaultSweep, AFailedWriteIsMadeGood) {
  for (const unsigned killAfter : {0u, 1u, 2u, 3u}) {
    for (unsigned at = 1; at <= 16; ++at) {
      SCOPED_TRACE("write " + std::to_string(at) + " fails, killed " + std::to_string(killAfter) +
                   " events later");
      startOver();
      // A write that fails has one event, the others have two; entries of the tables come between.
      const unsigned killAt = killAfter == 0 ? 0 : 2 * at - 1 + killAfter;
      const Ending first = run(true, killAt, at);
      if (killAfter == 0) {
        EXPECT_EQ(first.acknowledged, Peer::workload.size());
        expectComplete(first, Peer::workload.size());
      }
      expectComplete(run(false), first.acknowledged);
      if (HasFailure()) return;
    }
  }
}

}  // namespace
