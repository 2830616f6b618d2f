// Accesses in formats that a chip, an adapter or a neighbour does or does not take, by korureg, and
// registers that are reached without a map. The chips are simulated ones behind the device files.

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <sstream>

#include "testing/TempFile.h"
#include "tests/agent/Korud.h"
#include "tests/simulator/Korusim.h"

const char* const Korud::korudProgram = KORUD_PROGRAM;
const char* const Korusim::program = KORUSIM_PROGRAM;

namespace {

using testing::HasSubstr;

constexpr const char* chips = R"([[chip]]
name = "words"
i2c = "/dev/i2c-1:0x48"
value_bits = 16
auto_increment = false
registers = [{ at = 0, reset = 0x1900 }, { at = 1, bits = 8, reset = 0x60 }, { at = 2, count = 6 }]
[[chip.fault]]
register = 3
error = "EAGAIN"
count = 2
[[chip.fault]]
register = 4
error = "EIO"
[[chip.fault]]
register = 5
error = "EAGAIN"
[[chip.fault]]
register = 6
error = "short"
[[chip]]
name = "checked"
i2c = "/dev/i2c-1:0x40"
value_bits = 16
pec = true
registers = [{ at = 0, reset = 0x1234 }]
[[chip]]
name = "taken"
i2c = "/dev/i2c-1:0x41"
registers = [{ at = 0 }]
driver = true
[[chip]]
name = "eeprom"
i2c = "/dev/i2c-2:0x50"
address_bits = 16
size = 1024
[[chip]]
name = "little"
i2c = "/dev/i2c-2:0x51"
value_bits = 16
value_order = "low-first"
registers = [{ at = 0, reset = 0x1234 }]
[[chip]]
name = "long"
i2c = "/dev/i2c-2:0x53"
value_bits = 24
registers = [{ at = 0, count = 9, reset = 0x123456 }]
[[chip.fault]]
register = 8
error = "short"
[[chip]]
name = "flagged"
i2c = "/dev/i2c-1:0x42"
address_mask = 0x1f
registers = [{ at = 6, reset = 0x55 }]
[[chip]]
name = "reversed"
i2c = "/dev/i2c-1:0x43"
address_bits = 16
address_order = "low-first"
registers = [{ at = 6, reset = 0x66 }]
[[chip]]
name = "contended"
i2c = "/dev/i2c-1:0x54"
registers = [{ at = 0 }]
[[chip.fault]]
register = 0
error = "EAGAIN"
count = 2
[[chip]]
name = "odd"
i2c = "/dev/i2c-1:0x55"
registers = [{ at = 0 }]
[[chip.fault]]
register = 0
error = "EPROTO"
[[bus]]
node = "/dev/i2c-2"
functions = "smbus"
[[chip]]
name = "spi"
spi = "/dev/spidev0.0"
address_bits = 8
address_mask = 0x7f
read_command = 0x80
write_command = 0
registers = [{ at = 0, count = 16, reset = 0xe5 }]
[[chip.fault]]
register = 3
error = "EIO"
[[chip.fault]]
register = 4
error = "short"
[[chip.fault]]
register = 6
error = "EAGAIN"
count = 2
)";

constexpr const char* map =
    "number,name,type,writeable,width\n0,A,cfg,true,16\n1,B,cfg,true,8\n2,C,cfg,true,16\n"
    "3,D,cfg,true,16\n4,E,cfg,true,16\n5,F,cfg,true,16\n6,G,cfg,true,8\n7,H,cfg,true,24\n"
    "8,I,cfg,true,24\n9,Z,cfg,true,0\n10,R,sts,false,8\n";

// korureg on that board.
class OnTheBus : public testing::Test {
 protected:
  Testing::Outcome korureg(const std::string& words) const {
    return sim.run(std::string("-- ") + KORUREG_PROGRAM + " " + words);
  }
  Testing::Outcome mapped(const std::string& words) const {
    return korureg(std::string("--map ") + csv.path() + " " + words);
  }
  // The transactions since the last call.
  std::vector<std::string> traffic() const {
    std::vector<std::string> lines;
    std::istringstream in(sim.ledger());
    for (std::string line; std::getline(in, line);) {
      if (line.starts_with("/dev/")) lines.push_back(line.substr(line.find(' ') + 1));
    }
    sim.clearLedger();
    return lines;
  }

  const Testing::TempFile csv{map};
  const Korusim::Board sim{chips};
};

TEST_F(OnTheBus, AccessesEndAsTheyShould) {
  const std::string words = " /dev/i2c-1:0x48,high-first ", plain = "register {} of device 0x48";
  const struct {
    std::string way;
    std::string command;
    int exitCode;
    std::string says;                  // in what is printed, or in the error
    std::vector<std::string> traffic;  // none when it is not looked at
  } table[] = {
      {"--i2c" + words, "read A B", 0, "0x1900", {"48w 00 48r 19 00", "48w 01 48r 60"}},
      {"--relay" + words, "read A B", 0, "0x60", {"48w 00 48r 19 00", "48w 01 48r 60"}},
      {"--i2c" + words, "write A=0x1e00 B=0x7f", 0, "0x1e00", {"48w 00 1e 00", "48w 01 7f"}},
      {"--i2c" + words,
       "write B=0x1ff --force",
       1,
       "0x1ff has more than the 8 bits of register B",
       {}},
      {"--i2c" + words, "write B=0x1ff", 2, "0x1ff does not fit the 8 bits of B\n", {}},
      {"--i2c" + words, "read Z", 1, "cannot read Z over i2c: it has no bits", {}},
      // Another master has the bus twice, or for ever; it was not said to wait for the chip.
      {"--i2c" + words,
       "read D",
       0,
       "0x0000",
       {"48w 48r ! EAGAIN", "48w 48r ! EAGAIN", "48w 03 48r 00 00"}},
      {"--relay" + words,
       "read E",
       1,
       "reading register E of device 0x48 on /dev/i2c-1 failed: Input/output error; nothing ack",
       {"48w 48r ! EIO"}},
      {"--i2c" + words,
       "write E=1",
       1,
       "writing register E of device 0x48 on /dev/i2c-1 failed: Input/output error; nothing ack",
       {}},
      // Fewer messages than were asked for.
      {"--i2c" + words,
       "read G",
       1,
       "reading register G of device 0x48 on /dev/i2c-1 failed: Proto",
       {}},
      {"--i2c" + words, "write G=1", 1, "failed: Protocol error", {}},
      {"--relay" + words, "read G", 1, "failed: Protocol error", {}},
      {"--relay" + words, "write G=1", 1, "failed: Protocol error", {}},
      {"--i2c /dev/i2c-1:0x49,byte ",
       "read B",
       1,
       "failed: No such device or address; nothing",
       {}},
      {"--i2c /dev/i2c-1:0x41,byte ",
       "read B",
       1,
       "cannot use device 0x41 on /dev/i2c-1: Device or resource busy; a kernel driver uses",
       {}},
      // A check byte that a chip speaks, and one that it does not.
      {"--i2c /dev/i2c-1:0x40,value_bits=16,pec=true ", "read A", 0, "0x1234", {}},
      {"--relay /dev/i2c-1:0x40,value_bits=16,pec=true ", "write A=0x4321", 0, "0x4321", {}},
      {"--i2c /dev/i2c-1:0x48,value_bits=16,pec=true ",
       "read A",
       1,
       "failed: its packet error check is wrong",
       {}},
      {"--i2c /dev/i2c-1:0x42,address_flags=0x80 ", "read G", 0, "0x55", {"42w 86 42r 55"}},
      {"--i2c /dev/i2c-1:0x43,address_bits=16,address_order=low-first ",
       "read G",
       0,
       "0x66",
       {"43w 06 00 43r 66"}},
      // An adapter that has SMBus transactions only.
      {"--i2c /dev/i2c-2:0x53,high-first ", "read H", 0, "0x123456", {"53w 07 53r 12 34 56"}},
      {"--i2c /dev/i2c-2:0x53,high-first ", "write H=0xabcdef", 0, "0xabcdef", {"53w 07 ab cd ef"}},
      {"--i2c /dev/i2c-2:0x53,high-first ", "read I", 1, "failed: Protocol error", {}},
      {"--i2c /dev/i2c-2:0x51,word-low-first ", "read A", 0, "0x1234", {"51w 00 51r 34 12"}},
      {"--i2c /dev/i2c-2:0x51,word-low-first ", "write A=0x1", 0, "0x0001", {"51w 00 01 00"}},
      {"--relay /dev/i2c-2:0x51,word-low-first ", "read A", 0, "0x0001", {"51w 00 51r 01 00"}},
      {"--i2c /dev/i2c-2:0x50,byte16 ", "write B=0x7", 0, "0x07", {"50w 00 01 07"}},
      {"--i2c /dev/i2c-2:0x50,byte16 ",
       "read B",
       1,
       "failed: the adapter takes SMBus transactions only, and none of its own can send 2 bytes "
       "and "
       "then receive 1",
       {}},
      {"--relay /dev/i2c-2:0x50,byte16 ", "read B", 1, "none of its own can send 2 bytes", {}},
      {"--spi /dev/spidev0.0,command_bits=1,read_command=1,address_bits=7 ",
       "read B",
       0,
       "0xe5",
       {"> 81 00 < ff e5"}},
      {"--spi /dev/spidev0.0,command_bits=1,read_command=1,address_bits=7 ",
       "read G",
       0,
       "0xe5",
       {}},
      {"--spi /dev/spidev0.0,command_bits=1,read_command=1,address_bits=7 ",
       "read D",
       1,
       "reading register D on /dev/spidev0.0 failed: Input/output error",
       {}},
      {"--spi /dev/spidev0.0,command_bits=1,read_command=1,address_bits=7 ",
       "read E",
       1,
       "reading register E on /dev/spidev0.0 failed: Protocol error",
       {}},
      // A chip that is only read needs no command: what is written would be no write.
      {"--spi /dev/spidev0.0,read_command=0 ",
       "write R=1 --force",
       1,
       "the same messages as its",
       {}},
      {"--spi /dev/spidev0.0,read_command=0 ", "read R", 0, "0x", {"> 0a 00 < ff ff"}},
      {"--spi /dev/spidev0.0,command_bits=1,address_bits=7 ",
       "read B",
       1,
       "the chip takes writes only, as its format has no read_command",
       {}},
  };
  for (const auto& [way, command, exitCode, says, expected] : table) {
    SCOPED_TRACE(way + command);
    const Testing::Outcome outcome = mapped(way + command);
    EXPECT_EQ(outcome.exitCode, exitCode) << outcome.err;
    EXPECT_THAT(outcome.out + outcome.err, HasSubstr(says));
    const auto seen = traffic();
    if (!expected.empty()) {
      EXPECT_EQ(seen, expected);
    }
  }
}

// A window is as long as its file: what the map has beyond that is refused before any access.
TEST_F(OnTheBus, WindowsEndWhereTheyEnd) {
  sim.write("bar", std::string(6, '\x11'));
  const auto pci = [&](const std::string& settings, const std::string& words) {
    return mapped("--pci " + sim.file("bar") + settings + " " + words);
  };
  EXPECT_THAT(pci(",stride=1", "read B").err,
              HasSubstr("F, G, H and 3 more of the map lie beyond the window of 0x6"));
  sim.write("bar", std::string(24, '\x11'));
  EXPECT_EQ(pci(",stride=2", "write C=0x1234").exitCode, 0);
  EXPECT_THAT(pci(",stride=2,value_order=high-first", "read C").out, HasSubstr("0x3412"));
  EXPECT_THAT(pci(",stride=2", "read G B").out, HasSubstr("0x11"));
  EXPECT_THAT(pci(",stride=1", "read D").err, HasSubstr("its address 0x3 is no multiple of its 2"));
  const Testing::TempFile wraps("number,name,type,writeable,width\n536870912,W,cfg,true,8\n");
  const std::string way = fmt::format("--map {} --pci {},stride=8 ", wraps.path(), sim.file("bar"));
  EXPECT_THAT(korureg(way + "read W").err, HasSubstr("the address of W exceeds 32 bits"));
}

TEST_F(OnTheBus, ProbesWithoutAMap) {
  const std::string whole = korureg("--i2c /dev/i2c-1 probe").out;
  EXPECT_THAT(whole, HasSubstr("can do: messages (I2C_RDWR), "));
  for (const char* line :
       {"0x40  answers\n", "0x41  kept by the kernel's driver ", "0x48  answers\n",
        "0x54  answers\n", "0x55  cannot be asked: Protocol error\n", "byte16           yes "}) {
    EXPECT_THAT(whole, HasSubstr(line));
  }
  const std::string smbus = korureg("--i2c /dev/i2c-2:0x52 probe").out;
  EXPECT_THAT(smbus, HasSubstr("0x52  does not answer\n"));
  EXPECT_THAT(smbus, HasSubstr("byte16           no: the adapter takes SMBus transactions only"));
  EXPECT_THAT(korureg("--spi /dev/spidev0.0 probe").out, HasSubstr("bits per word: 8\n"));
  EXPECT_THAT(korureg("--pci " + sim.file("board.toml") + " probe").out, HasSubstr("window: 0x"));
  EXPECT_EQ(korureg("--mock probe").exitCode, 2);
  EXPECT_THAT(korureg("--i2c /dev/i2c-7 probe").err,
              testing::ContainsRegex("No such file.*'i2cdetect -l' lists those there are"));
  EXPECT_EQ(korureg("--i2c /dev/i2c-1:0 probe").exitCode, 2);
  // It keeps out of the way of whoever has the lock of the bus.
  const std::string locked = "-- /usr/bin/flock /dev/i2c-1 /usr/bin/timeout 0.3 ";
  EXPECT_EQ(sim.run(locked + KORUREG_PROGRAM " --i2c /dev/i2c-1:0x48 probe").exitCode, 124);
  traffic();
}

TEST_F(OnTheBus, PeeksAndPokesByAddress) {
  EXPECT_EQ(korureg("--i2c /dev/i2c-1:0x48,word-high-first poke 2 0x1234").exitCode, 0);
  EXPECT_THAT(korureg("--i2c /dev/i2c-1:0x48,word-high-first peek 0x0 3").out,
              HasSubstr("0x02  0x1234"));
  EXPECT_THAT(korureg("--i2c /dev/i2c-1:0x48,high-first peek 1 --width 8").out, HasSubstr("0x60"));
  const std::pair<const char*, const char*> refused[] = {
      {"--i2c /dev/i2c-1:0x48,high-first peek 1", "say how wide the register is, with --width"},
      {"--i2c /dev/i2c-1:0x48,byte peek 256", "0x100 over i2c: its address 0x100 has more than"},
      {"--i2c /dev/i2c-1:0x48,byte poke 1 256", "0x100 does not fit 8 bits"},
      {"--i2c /dev/i2c-1:0x48,byte peek 1x", "'1x' is no number"},
      {"--i2c /dev/i2c-1:0x48,word peek 1 --width 8", "as it is, registers have 16 bits; settings"},
      {"--pci /dev/null poke 0 0x12 --width 8", "over pci as it is, registers have 32 bits"},
      {"--relay /dev/i2c-1:0x48 peek 0x4000", "the relay has addresses up to 0xffff"},
      {"--spi /dev/spidev0.0,read_command=0 poke 1 1 --width 8",
       "its writes are the same messages as"},
      {"--i2c /dev/i2c-1:0x48,address_bits=32,value_bits=8 peek 0xfffffffe 4",
       "4 registers from 0xfffffffe"},
      {"--mock peek 0", "a mock chip has the registers of a map"},
      {"peek 1", "say how the chip is reached"},
  };
  traffic();
  korureg("--relay /dev/i2c-2:0x50 poke 3 0x12");
  EXPECT_THAT(traffic(), testing::Contains("50w 00 03 00 00 00 12"));
  for (const auto& [words, why] : refused) {
    const Testing::Outcome outcome = korureg(words);
    EXPECT_THAT(outcome.err, HasSubstr(why));
    EXPECT_EQ(outcome.exitCode, 2);
  }
  EXPECT_THAT(traffic(), testing::IsEmpty());
}

// What an agent keeps is not accessed behind its back.
TEST_F(OnTheBus, LeavesAnAgentsChipAlone) {
  Korud::Agent agent(
      "[[chip]]\nname = \"hot\"\nregister_map = \"map.csv\"\ni2c = "
      "\"/dev/i2c-1:0x48,high-first\"\n");
  agent.wrapper = {Korusim::program, sim.file("board.toml"), "--"};
  agent.environment = {"ASAN_OPTIONS=verify_asan_link_order=0"};
  agent.start();
  const std::string asked = " --state-dir " + agent.file("");
  const Testing::Outcome refused = korureg("--i2c /dev/i2c-1:0x48,byte poke 1 0x7f" + asked);
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_THAT(refused.err, HasSubstr("the agent keeps it as chip 'hot'"));
  EXPECT_EQ(korureg("--i2c /dev/i2c-1:0x48,byte poke 1 0x7f --force" + asked).exitCode, 0);
  EXPECT_EQ(korureg("--i2c /dev/i2c-1:0x40,word-high-first peek 0" + asked).exitCode, 0);
}

}  // namespace
