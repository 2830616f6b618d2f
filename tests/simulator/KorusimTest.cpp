// Whole programs on a simulated board.

#include <gmock/gmock.h>
#include <signal.h>

#include <tuple>

#include "testing/Sanitizers.h"
#include "tests/agent/Korud.h"
#include "tests/simulator/Korusim.h"

const char* const Korud::korudProgram = KORUD_PROGRAM;
const char* const Korusim::program = KORUSIM_PROGRAM;

namespace {

using testing::HasSubstr;
using Testing::Outcome;

constexpr const char* boardText = R"(
[[bus]]
node = "/dev/i2c-2"
functions = "smbus"
[[chip]]
name = "words"
i2c = "/dev/i2c-1:0x48"
value_bits = 16
value_order = "low-first"
registers = [{ at = 0, reset = 0x1234 }, { at = 1, bits = 8, reset = 7 }]
[[chip]]
name = "blocks"
i2c = "/dev/i2c-1:0x50"
address_bits = 16
value_bits = 32
registers = [{ at = 0, count = 16 }]
[[chip]]
name = "memory"
i2c = "/dev/i2c-2:0x51"
size = 256
[[chip]]
name = "bound"
i2c = "/dev/i2c-2:0x52"
driver = true
volatile = true
size = 16
[[chip]]
name = "dac"
spi = "/dev/spidev0.0"
value_bits = 16
registers = [{ at = 0, count = 4 }]
)";

const std::string korureg = " -- " KORUREG_PROGRAM " --map ";

TEST(Korusim, RunsKoruregOnEachFormat) {
  const Korusim::Board board(boardText);
  board.write("words.csv", "number,name,type,writeable,width\n0,A,cfg,true,16\n9,N,cfg,true,16\n");
  board.write("blocks.csv", "number,name,type,writeable,width\n2,B,cfg,true,32\n");
  const std::string words = korureg + board.file("words.csv") + " --i2c /dev/i2c-1:0x48,word ";
  const std::string blocks = korureg + board.file("blocks.csv");
  EXPECT_THAT(board.out(words + "read A"), HasSubstr("  0x1234 "));
  board.out(words + "write A=0xbeef");
  board.out(blocks + " --i2c /dev/i2c-1:0x50 write B=0x01020304");
  EXPECT_THAT(board.out(blocks + " --relay /dev/i2c-1:0x50 read B"), HasSubstr("  0x01020304 "));
  board.out(korureg + board.file("words.csv") + " --spi /dev/spidev0.0 write A=0xcafe");
  EXPECT_EQ(board.out("--get words:0 --get dac:0"), "0xbeef\n0xcafe\n");
  EXPECT_EQ(board.ledger(),
            "power\n"
            "/dev/i2c-1 48w 00 48r 34 12\n"
            "/dev/i2c-1 48w 00 ef be\n"
            "/dev/i2c-1 50w 00 02 01 02 03 04\n"
            "/dev/i2c-1 50w 00 02\n"
            "/dev/i2c-1 50w 00 50r 01 02 03 04\n"
            "/dev/spidev0.0 > 00 ca fe < ff ff ff\n");
  EXPECT_EQ(board.out("--ledger"), board.ledger());
  // What nobody can do: no chip, no such bus.
  const Outcome nobody =
      board.run(korureg + board.file("words.csv") + " --i2c /dev/i2c-1:0x49,word read A");
  EXPECT_EQ(nobody.exitCode, 1);
  EXPECT_THAT(nobody.err, HasSubstr("No such device or address"));
  EXPECT_EQ(board.run(korureg + board.file("words.csv") + " --i2c /dev/i2c-7:0x48 read A").exitCode,
            1);
}

TEST(Korusim, ServesKorudAndOthersAtOnce) {
  const Korusim::Board board(boardText);
  Korud::Agent agent(
      "[[chip]]\nname = 'w'\nregister_map = 'w.csv'\ni2c = '/dev/i2c-1:0x48,word'\n"
      "[chip.physical.A]\nlow = { bits = '7:0' }\n[chip.logical.a]\nlow = { to = 'A.low', value = "
      "5 }\n"
      "[[chip]]\nname = 's'\nregister_map = 'w.csv'\nspi = '/dev/spidev0.0'\n"
      "[chip.physical.A]\nall = { bits = '15:0' }\n[chip.logical.a]\nall = { to = 'A.all', value = "
      "9 }\n");
  agent.write("w.csv", "number,name,type,writeable,width\n0,A,cfg,true,16\n");
  agent.wrapper = {KORUSIM_PROGRAM, board.file("board.toml"), "--"};
  agent.environment = {"ASAN_OPTIONS=verify_asan_link_order=0"};
  Korud::Client client = agent.startAndConnect();
  EXPECT_EQ(board.out("--get words:0"), "0x0005\n");
  Korud::until([&] { return board.out("--get dac:0") == "0x0009\n"; });
  // Somebody changes the register from outside, and the agent's client sees it.
  board.out("--set words:0=0x1111");
  const auto ask = [&](std::vector<std::string> words) {
    words.insert(words.begin(), KORUREG_PROGRAM);
    return Testing::run({words, {"KORU_STATE_DIR=" + agent.file("")}});
  };
  EXPECT_EQ(ask({"hw", "read", "w", "A"}).out, "0x1111\n");
  // A chip that answers no more, and again: the agent writes what it has to hold.
  board.out("--unplug words");
  ask({"field", "write", "w", "a", "low", "6"});
  EXPECT_EQ(board.out("--get words:0"), "0x1111\n");
  board.out("--plug words");
  Korud::until([&] { return board.out("--get words:0") == "0x0006\n"; });
  EXPECT_EQ(agent.stop(SIGTERM).exitCode, 0);
}

TEST(Korusim, RunsI2cTools) {
  if (!std::filesystem::exists("/usr/sbin/i2ctransfer")) GTEST_SKIP() << "there are no i2c-tools";
  const Korusim::Board board(boardText);
  const std::tuple<const char*, const char*> table[] = {
      {"i2cget -y 1 0x48 0 w", "0x1234\n"},
      {"i2cset -y 1 0x48 0 0xabcd w", ""},
      {"i2cget -y 1 0x48 0", "0xcd\n"},
      {"i2ctransfer -y 1 w4@0x50 0 3 1 2 w2@0x50 0 3 r4", "0x00 0x00 0x00 0x00\n"},
      {"i2cset -y 2 0x51 0x10 1 2 3 i", ""},
      {"i2cget -y 2 0x51 0x10 i 4", "0x01 0x02 0x03 0xff\n"},
      {"i2cset -y 2 0x51 0x20", ""},
      {"i2cget -y -f 2 0x52 0x00", "0xff\n"},
  };
  for (const auto& [words, printed] : table) {
    EXPECT_EQ(board.out("-- /usr/sbin/" + std::string(words)), printed) << words;
  }
  EXPECT_THAT(board.run("-- /usr/sbin/i2cget -y 2 0x52 0").err, HasSubstr("busy"));
  EXPECT_THAT(board.run("-- /usr/sbin/i2ctransfer -y 2 r1@0x51").err, HasSubstr("transfers"));
  EXPECT_THAT(board.out("-- /usr/sbin/i2cdetect -y 2 0x50 0x57"), HasSubstr("50: -- 51 UU --"));
}

TEST(Korusim, RunsProgramsThatReadAndWrite) {
  const Korusim::Board board(boardText);
  const std::string peer = "-- " SIMULATOR_PEER " /dev/i2c-";
  EXPECT_EQ(board.run(peer + "1 0x50 plain").exitCode, 1);  // the chip takes another form
  board.write("board.toml", "[[chip]]\nname = 'm'\ni2c = '/dev/i2c-1:0x50'\nsize = 256\n");
  EXPECT_EQ(board.run(peer + "1 0x50 plain").exitCode, 0);
  EXPECT_THAT(board.ledger(),
              testing::EndsWith("50w f0 01 02\n/dev/i2c-1 50w f0\n/dev/i2c-1 50r 01 02\n"));
}

// The lock of a bus is that of the kernel, on one file for all programs.
TEST(Korusim, LocksBusesAsTheKernelDoes) {
  const Korusim::Board board(boardText);
  const std::string lock = "/usr/bin/flock -n /dev/i2c-1 ";
  EXPECT_EQ(board.run("-- " + lock + "/bin/true").exitCode, 0);
  EXPECT_EQ(board.run("-- " + lock + lock + "/bin/true").exitCode, 1);
  EXPECT_EQ(board.run("-- " + lock + "/usr/bin/flock -n /dev/i2c-2 /bin/true").exitCode, 0);
}

// The preloaded library may change nothing else of a program.
TEST(Korusim, LeavesOtherFilesAlone) {
  const Korusim::Board board(boardText);
  board.write("plain", "text\n");
  const std::tuple<std::string, std::string> table[] = {
      {"-- /bin/cat " + board.file("plain"), "text\n"},
      {"-- /usr/bin/stat -c %F " + board.file("plain"), "regular file\n"},
      {"-- /usr/bin/stat -c %F /dev/null /dev/i2c-1 /dev/spidev0.0",
       "character special file\ncharacter special file\ncharacter special file\n"},
      {"-- /usr/bin/test -c /dev/i2c-1 -a -w /dev/i2c-1 -a ! -e /dev/i2c-3", ""},
      {"-- /usr/bin/env -i /bin/cat " + board.file("plain"), "text\n"},
  };
  for (const auto& [words, printed] : table) EXPECT_EQ(board.out(words), printed) << words;
  Testing::Command shell = board.command("-- /bin/sh -c");
  shell.argv.push_back("exit 3");
  EXPECT_EQ(Testing::run(shell).exitCode, 3);
  EXPECT_EQ(board.run("-- /bin/cat " + board.file("none")).exitCode, 1);
}

TEST(Korusim, ShowsAndChangesTheBoard) {
  const Korusim::Board board(boardText);
  EXPECT_EQ(board.out("--check"),
            board.file("board.toml") + ": 3 buses and devices, 5 chips, no problems\n");
  EXPECT_EQ(board.out("--list"),
            "CHIP    PLACE            HOLDS\n"
            "words   /dev/i2c-1:0x48  2 registers\n"
            "blocks  /dev/i2c-1:0x50  16 registers\n"
            "memory  /dev/i2c-2:0x51  256 bytes\n"
            "bound   /dev/i2c-2:0x52  16 bytes\n"
            "dac     /dev/spidev0.0   4 registers\n");
  EXPECT_FALSE(std::filesystem::exists(board.state("")));  // neither of them needs it
  EXPECT_EQ(board.out("--set words:1=0xff --set memory:0x10=3 --get words"),
            "0x00  0x1234\n0x01  0xff\n");
  // Registers forget without power, memory does not; a board described otherwise has new power,
  // too.
  board.out("--set bound:1=3");
  EXPECT_EQ(board.out("--reset --get words:1 --get memory:16 --get bound:1"), "0x07\n0x03\n0xff\n");
  board.out("--set words:1=9");
  std::string changed = boardText;
  board.write("board.toml", "# only a comment\n" + changed);
  EXPECT_EQ(board.out("--get words:1"), "0x09\n");
  board.write("board.toml", changed.replace(changed.find("0x1234"), 6, "0x4321"));
  EXPECT_EQ(board.out("--get words:1 --get words:0 --get memory:16"), "0x07\n0x4321\n0x03\n");
}

TEST(Korusim, RefusesWhatCannotBe) {
  const Korusim::Board board(boardText);
  const std::tuple<std::string, int, std::string> table[] = {
      {"", 2, "there is nothing to do; name a program behind --, or see --help"},
      {"--get nobody:0", 2, "there is no chip 'nobody'"},
      {"--get words:2", 2, "chip 'words' has no register at 0x2"},
      {"--get memory", 2, "chip 'memory' is a memory: name one of its addresses"},
      {"--get memory:256", 2, "chip 'memory' has no register at 0x100"},
      {"--set words:0", 2, "'words:0' is not as in temperature:0x00=0x1900"},
      {"--set words:1=0x100", 2, "0x100 does not fit into words:0x1, which takes up to 0xff"},
      {"--set words:1=much", 2, "'much' is no number (write 42 or 0x2a)"},
      {"--unplug nobody", 2, "there is no chip 'nobody'"},
      {"-- /no/program", 1, "cannot run /no/program: No such file or directory"},
      {"--state " + board.file("board.toml") + "/x --reset", 1,
       "cannot make directory " + board.file("board.toml") + "/x/nodes: Not a directory"},
  };
  for (const auto& [words, exitCode, message] : table) {
    const Outcome outcome = board.run(words);
    EXPECT_EQ(outcome.err, "korusim: " + message + "\n") << words;
    EXPECT_EQ(outcome.exitCode, exitCode) << words;
  }
  EXPECT_EQ(board.run("--nonsense").exitCode, 2);
  const Outcome missing = Testing::run({{KORUSIM_PROGRAM, "/no/board.toml", "--list"}});
  EXPECT_EQ(missing.err, "korusim: /no/board.toml: there is no such file\n");
  EXPECT_EQ(missing.exitCode, 1);
  board.write("board.toml", "[[chip]]\nname = 'c'\n");
  const Outcome wrong = board.run("-- /bin/true");
  EXPECT_THAT(wrong.err, HasSubstr(board.file("board.toml") + ":1: chip 'c': a chip needs either"));
  EXPECT_EQ(wrong.exitCode, 1);
  EXPECT_EQ(board.run("--check").exitCode, 1);
}

}  // namespace
