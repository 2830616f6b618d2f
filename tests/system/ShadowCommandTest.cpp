// korureg shadow, beside a writer in a process of its own.

#include <gmock/gmock.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "testing/StateDirectory.h"
#include "tests/Shoal/PeerProcess.h"
#include "tests/system/Korureg.h"

const char* const Peer::peerProgram = SHOAL_PEER;

namespace {

using Korureg::nextLine;
using nlohmann::json;
using Peer::Op;
using Testing::Outcome;

constexpr const char* path = "KoruRegFile/shadowFieldsConfig/chip0";

// A process that writes the table, change by change as it is told.
struct Writer : Peer::Process {
  explicit Writer(const Testing::StateDirectory& state)
      : Process(state, "writer", path, "KoruRegFile::ShadowFieldsConfig") {}
};

// A field as the table has it.
uint64_t key(uint64_t address, uint64_t start, uint64_t size) {
  return address << 16 | start << 8 | size;
}

class ShadowCommand : public testing::Test {
 protected:
  // One of the shadow commands, about the table or another.
  Testing::Command command(const std::string& name, const char* where = path) const {
    return Korureg::command("shadow " + name + " " + where + " --state-dir " + state.path());
  }
  Outcome run(const std::string& name) const { return Testing::run(command(name)); }
  json runJson(const std::string& name) const { return json::parse(run("--json " + name).out); }
  Testing::StateDirectory state;
};

TEST_F(ShadowCommand, ShowsAndChecksATableWithAndWithoutItsWriter) {
  Writer writer(state);
  writer.ask({Op::put, 0xab, key(0x100, 8, 8)});
  writer.ask({Op::put, 7, key(0x44, 0, 32)});
  writer.ask({Op::put, 1, key(0x100, 0, 1)});
  writer.ask({Op::put, 1, key(4, 0, 1)});
  writer.ask({Op::del, 0, key(4, 0, 1)});
  const std::string table =
      "ADDRESS    BITS         HEX  DECIMAL\n"
      "   0x44  [31:0]  0x00000007        7\n"
      "  0x100   [0:0]         0x1        1\n"
      "  0x100  [15:8]        0xab      171\n";
  EXPECT_EQ(run("show").out, table);
  const json shown = runJson("show");
  EXPECT_EQ(shown["writer"], writer.pid());
  EXPECT_EQ(shown["type"], "KoruRegFile::ShadowFieldsConfig");
  EXPECT_EQ(shown["fields"][2], json::parse(R"({"address":256,"start":8,"size":8,"value":171})"));
  writer.kill();
  const Outcome orphan = run("show");
  EXPECT_EQ(orphan.out, table + "detached: the writer is gone, and these are its last contents\n");
  EXPECT_EQ(orphan.exitCode, 0);
  EXPECT_EQ(runJson("show")["writer"], nullptr);
  const Outcome check = run("check");
  EXPECT_EQ(check.out, "ok: 3 entries in 16 slots, generation 1\n");
  EXPECT_EQ(check.exitCode, 0);
}

TEST_F(ShadowCommand, NamesWhatIsDamagedOrForeignOrMissing) {
  const std::string file = state.file(path);
  Korureg::expectFailure(run("check"), 1,
                         std::string("there is no table ") + path + " (" + file + ")");
  EXPECT_EQ(Testing::run(command("show", "../x")).exitCode, 2);
  Writer(state).ask({Op::put, 1, key(8, 0, 8)});
  const std::string good = Tables::bytesOf(file);
  const auto flipped = [&](size_t at) {
    std::string content = good;
    content[at] = static_cast<char>(content[at] ^ 0x10);
    Tables::bytesAre(file, content);
  };
  flipped(4096 + 4096 * 8 + 16 * 4 + 5 * 16 + 8);
  EXPECT_EQ(run("check").out, "damaged: slot 5 holds something that was never stored\n");
  EXPECT_EQ(run("check").exitCode, 1);
  EXPECT_EQ(run("show").exitCode, 1);
  EXPECT_EQ(runJson("check")["damagedSlots"], json::array({5}));
  Testing::Process watch(command("watch"));
  nextLine(watch);
  watch.signal(SIGTERM);
  EXPECT_EQ(watch.wait().exitCode, 1);
  const std::pair<size_t, const char*> heads[] = {{0, " is no shared table"},
                                                  {90, ": the header is damaged"}};
  for (const auto& [at, message] : heads) {
    flipped(at);
    for (const char* name : {"check", "show", "watch"}) {
      Korureg::expectFailure(run(name), 1, file + message);
    }
  }
}

TEST_F(ShadowCommand, WatchesThroughTheDeathAndReturnOfTheWriter) {
  Testing::Process watch(command("watch"));
  EXPECT_EQ(nextLine(watch), "waiting: there is no such table yet");
  const std::string attached = "attached: the writer is there";
  {
    Writer writer(state);
    EXPECT_EQ(nextLine(watch), attached);
    writer.ask({Op::put, 3, key(0x40, 4, 4)});
    EXPECT_EQ(nextLine(watch), "0x40  [7:4]  (none) -> 0x3");
  }
  EXPECT_EQ(nextLine(watch), "detached: the writer is gone, its last contents go on being served");
  Writer writer(state);
  writer.ask({Op::put, 5, key(0x40, 4, 4)});
  EXPECT_THAT((std::vector{nextLine(watch), nextLine(watch)}),
              testing::UnorderedElementsAre(attached, "0x40  [7:4]  0x3 -> 0x5"));
  writer.ask({Op::del, 0, key(0x40, 4, 4)});
  EXPECT_EQ(nextLine(watch), "0x40  [7:4]  0x5 -> (deleted)");
  watch.signal(SIGTERM);
  EXPECT_EQ(watch.wait().exitCode, 0);
  // The contents first; ended by the loss of whoever reads them.
  writer.ask({Op::put, 9, key(0x48, 0, 8)});
  Testing::Process second(command("--json watch"));
  const json first = json::parse(second.line());
  EXPECT_EQ(first["value"], 9);
  EXPECT_FALSE(first.contains("old"));
  EXPECT_EQ(json::parse(second.line())["status"], "attached");
  second.stopReading();
  Korureg::expectFailure(second.wait(), 1, "nobody reads standard output");
}

}  // namespace
