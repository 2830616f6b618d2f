// A board's state that is damaged, in use by many, or left by a program that was killed.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <signal.h>

#include "simulator/model/LockedState.h"
#include "tests/simulator/Korusim.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using Testing::Outcome;

constexpr const char* boardText =
    "[[chip]]\nname = 'm'\ni2c = '/dev/i2c-1:0x50'\nsize = 256\n"
    "[[chip]]\nname = 'r'\ni2c = '/dev/i2c-1:0x40'\nregisters = [{ at = 0, reset = 5 }]\n";
const std::string peer = "-- " SIMULATOR_PEER " /dev/i2c-1 0x50 ";

std::string bytesOf(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

void fill(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// Whatever its bytes are, a board file that was damaged is refused, by the tool and under programs.
TEST(DamagedState, IsToldAndMadeAnew) {
  const Korusim::Board board(boardText);
  board.out("--get r:0");
  const std::string path = board.state("board"), sound = bytesOf(path);
  std::string magic = sound, header = sound, row = sound;
  magic[3] ^= 1;
  header[13] ^= 0x40;
  row[200] ^= 1;
  const std::pair<std::string, std::string> table[] = {
      {"", "it has been cut"},
      {sound.substr(0, 40), "it has been cut"},
      {sound.substr(0, sound.size() - 1), "it has been cut"},
      {sound + "x", "it has been cut"},
      {magic, "it is no board's, or of another version"},
      {header, "its header is damaged"},
      {row, "its description is damaged"},
  };
  for (const auto& [bytes, why] : table) {
    fill(path, bytes);
    const Outcome refused = board.run("--get r:0");
    EXPECT_EQ(refused.err, fmt::format("korusim: {}: {}; --reset makes it anew\n", path, why));
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(board.out("--reset --get r:0"), "0x05\n");
  }
  // Any single byte that is wrong is noticed, or does no harm.
  const size_t rows = sizeof(Simulator::Header) + sizeof(Simulator::NodeRow);
  for (size_t at = 0; at < sound.size(); at += at < rows ? 1 : 17) {
    std::string bytes = sound;
    bytes[at] = static_cast<char>(bytes[at] ^ 0xff);
    Simulator::whyUnsound({reinterpret_cast<uint8_t*>(bytes.data()), bytes.size()});
  }
}

// A program sees a bus that fails, and is told why, once.
TEST(DamagedState, FailsUnderAProgram) {
  const Korusim::Board board(boardText);
  Testing::Process running(board.command(peer + "0"));
  running.line();
  fill(board.file("cut"), "x");
  fs::rename(board.file("cut"), board.state("board"));
  const Outcome ended = running.wait();
  EXPECT_EQ(ended.exitCode, 1);
  EXPECT_THAT(ended.err, HasSubstr("korusim: " + board.state("board") + ": it has been cut\n"));
  EXPECT_THAT(ended.err, HasSubstr("exchange: Input/output error\n"));
}

TEST(UnwritableState, IsTold) {
  const Korusim::Board board(boardText);
  board.out("--get r:0");
  // Directories where files should be: no user may write those.
  for (const char* name : {"lock", "board"}) {
    fs::remove(board.state(name));
    fs::create_directory(board.state(name));
    const Outcome refused = board.run("--get r:0");
    EXPECT_EQ(refused.err, "korusim: " + board.state(name) + ": Is a directory\n");
    EXPECT_EQ(refused.exitCode, 1);
    fs::remove(board.state(name));
  }
  // The board works without its ledger, and says how much is missing there.
  fs::remove(board.state("ledger"));
  fs::create_directory(board.state("ledger"));
  EXPECT_EQ(board.out("--set r:0=6 --get r:0"), "0x06\n");
  EXPECT_EQ(board.run("--ledger").err, "korusim: 1 lines of the ledger could not be written\n");
}

TEST(SharedState, SurvivesManyAtOnce) {
  const Korusim::Board board(boardText);
  Testing::Process one(board.command(peer + "300")), other(board.command(peer + "300"));
  for (int i = 0; i < 10; ++i) board.out("--set r:0=" + std::to_string(i));
  const Outcome first = one.wait(), second = other.wait();
  EXPECT_EQ(first.exitCode, 0) << first.err;
  EXPECT_EQ(second.exitCode, 0) << second.err;
  EXPECT_EQ(board.out("--get r:0"), "0x09\n");
  // Each transaction has a line of its own.
  std::istringstream ledger(board.ledger());
  size_t lines = 0;
  for (std::string line; std::getline(ledger, line);) {
    lines += line.starts_with("/dev/i2c-1 50w ") && line.size() == 52;
  }
  EXPECT_EQ(lines, 2 * (4 * 300 + 1));
}

// The kernel gives the lock back, whatever the program was doing.
TEST(SharedState, SurvivesKills) {
  const Korusim::Board board(boardText);
  for (int i = 0; i < 10; ++i) {
    Testing::Process endless(board.command(peer + "0"));
    endless.line();
    endless.signal(SIGKILL);
    EXPECT_EQ(board.out("--get r:0"), "0x05\n");
    EXPECT_EQ(endless.wait().signal, SIGKILL);
  }
  EXPECT_EQ(board.run(peer + "10").exitCode, 0);
}

}  // namespace
