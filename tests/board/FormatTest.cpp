// Formats: what may be said of one.

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <system_error>

#include "board/description/SystemFile.h"
#include "board/devices/SharedRelay.h"
#include "board/devices/TransportKind.h"
#include "testing/StateDirectory.h"

namespace {

using testing::StartsWith;

// Each is told with the line of its setting, the chip with a sound one comes up.
TEST(Formats, AreTakenOrRefusedWithTheirLine) {
  const Testing::StateDirectory directory;
  const auto write = [&](const char* name, const std::string& text) {
    std::ofstream(directory.file(name)) << text;
  };
  write("map.csv",
        "number,name,type,writeable,width\n0,A,cfg,true,8\n1,B,cfg,true,16\n"
        "300,C,cfg,true,8\n4,Z,cfg,true,0\n2,D,cfg,true,24\n3,E,cfg,true,12\n"
        "536870912,W,cfg,true,8\n");
  const std::string i2c = "at = \"/dev/i2c-1:0x48\"\n", spi = "at = \"/dev/spidev0.0\"\n";
  const struct {
    const char* kind;
    std::string settings;
    const char* reg;
    const char* problem;  // its beginning, without the file; empty when there is none
  } table[] = {
      {"i2c", i2c + "address_bits = 8", "A", ""},
      {"i2c", i2c + "address_bits = 12", "A",
       "5: chip 'c': i2c: address_bits has to be one of 0, 8, 16, 24, 32, not '12'"},
      {"i2c", i2c + "address_bits = 8.5", "A",
       "5: chip 'c': i2c.address_bits has to be a number, true or false, or a word"},
      {"i2c", i2c + "\"address_bits=8,pec\" = true", "A",
       "5: chip 'c': i2c: 'address_bits=8,pec' is no setting"},
      {"i2c", i2c + "value_bits = 16", "A",
       "7: chip 'c': register 'A' cannot be written: it has 8 bits, and the format carries 16"},
      {"i2c", i2c + "value_bits = 16", "B", ""},
      {"i2c", i2c + "value_bits = 16", "E", ""},
      {"i2c", i2c + "value_bits = 8", "E",
       "7: chip 'c': register 'E' cannot be written: it has 12 bits, and the format carries 8"},
      {"i2c", i2c + "pec = true", "C",
       "7: chip 'c': register 'C' cannot be written: its address 0x12c has more than the 8 bits"},
      {"i2c", i2c + "address_flags = 0x02", "D",
       "7: chip 'c': register 'D' cannot be written: its address 0x2 has bits of the "
       "address_flags"},
      {"i2c", i2c + "address_flags = 0x100", "A",
       "5: chip 'c': i2c: address_flags has to be a number from 0 to 0xff, not '256'"},
      {"i2c", i2c + "value_order = \"big\"", "A",
       "5: chip 'c': i2c: value_order has to be one of high-first, low-first, not 'big'"},
      {"i2c", i2c + "pec = 1", "A", "5: chip 'c': i2c: pec has to be one of false, true, not '1'"},
      {"i2c", i2c + "bits = 8", "A",
       "5: chip 'c': i2c: bits is nothing that can be said here; there are address_bits, "
       "value_bits"},
      {"i2c", "at = \"/dev/i2c-1:0x48,byte\"\naddress_bits = 16", "A",
       "5: chip 'c': i2c: address_bits is said twice"},
      {"i2c", "at = \"/dev/i2c-1:0x48,word\"\npec = true", "A",
       "5: chip 'c': i2c: pec cannot be said: ',word' is a form of its own and takes no settings"},
      {"i2c", "address_bits = 8", "A", "3: chip 'c': i2c has to say where, with the key 'at'"},
      {"i2c", "at = \"/dev/i2c-1:0x48,word\"", "A",
       "6: chip 'c': register 'A' cannot be written: it has 8 bits, and a word of 16 would write"},
      {"relay", i2c + "value_bits = 24", "D", ""},
      {"relay", i2c + "value_bits = 8", "Z",
       "7: chip 'c': field Z.f [0:0] lies outside its register, which has 0 bits"},
      {"relay", "at = \"/dev/i2c-1:0x48,block\"", "A",
       "3: chip 'c': relay: '/dev/i2c-1:0x48,block'"},
      {"spi", "at = \"/dev/spidev0.0,byte\"", "A",
       "3: chip 'c': spi: 'byte' is no setting (write KEY=VALUE behind the place)"},
      {"pci", "at = \"0000:03:00.0/0,byte\"", "A", "3: chip 'c': pci: 'byte' is no setting"},
      {"pci", "at = \"bar,byte\"", "A", ""},
      {"spi", "at = \"/dev/spidev0.0\"", "A",
       "6: chip 'c': register 'A' cannot be written: it has 8 bits, and an SPI message of 16 would "
       "write its neighbour, too; ',value_bits=8'"},
      {"spi", spi + "command_bits = 1\naddress_bits = 7\nread_command = 1", "A", ""},
      {"spi", spi + "address_bits = 7", "A",
       "5: chip 'c': spi: address_bits has to fill whole bytes together with the other parts"},
      {"spi", spi + "address_bits = 0\nvalue_bits = 12", "E",
       "6: chip 'c': spi: value_bits has to fill whole bytes together"},
      {"spi", spi + "command_bits = 4\nread_command = 16", "A",
       "6: chip 'c': spi: read_command has to be a number from 0 to 0xf, not '16'"},
      {"spi", spi + "command_bits = 8\nread_command = 3\nwrite_command = 3", "A",
       "9: chip 'c': register 'A' cannot be written: its writes are the same messages as its "
       "reads"},
      {"spi", spi + "mode = 4", "A", "5: chip 'c': spi: mode has to be a number from 0 to 0x3"},
      {"spi", spi + "dummy_bits = 4", "A", "5: chip 'c': spi: dummy_bits has to be whole bytes"},
      {"spi", spi + "address_bits = 8", "C",
       "7: chip 'c': register 'C' cannot be written: its address 0x12c has more than the 8 bits"},
      {"memory", "at = \"w\"\nstride = 1", "A", ""},
      {"memory", "stride = 8", "A",
       "2: chip 'c': map.csv: the address of W exceeds 32 bits: 536870912 times the stride 8"},
      {"memory", "stride = 4", "W",
       "6: chip 'c': register 'W' cannot be written: a memory window ends at 0xfffffff, its"},
      {"memory", "stride = 3", "A", "4: chip 'c': memory: stride has to be one of 1, 2, 4, 8"},
      {"memory", "stride = 1", "B",
       "6: chip 'c': register 'B' cannot be written: its address 0x1 is no multiple of its 2"},
      {"memory", "stride = 4", "D", "6: chip 'c': register 'D' cannot be written: it has 24 bits"},
      {"mock", "at = \"x\"", "A", ""},
      {"mock", "pec = true", "A", "4: chip 'c': mock: pec is nothing that can be said here"},
  };
  for (const auto& [kind, settings, reg, problem] : table) {
    SCOPED_TRACE(std::string(kind) + "\n" + settings + "\n" + reg);
    write(
        "board.toml",
        fmt::format("[[chip]]\nname = \"c\"\n[chip.{0}]\n{1}\n[chip.physical.{2}]\nf = {{ bits = 0 "
                    "}}\n[chip.logical.l]\nf = {{ to = \"{2}.f\" }}\n[[chip]]\nname = \"good\"\n"
                    "register_map = \"map.csv\"\nmemory = true\n",
                    kind, settings, reg));
    std::string text = "register_map = \"map.csv\"\n";
    std::string whole;
    std::getline(std::ifstream(directory.file("board.toml")), whole, '\0');
    whole.insert(whole.find("[chip."), text);
    write("board.toml", whole);
    const auto board = Board::readFile(directory.file("board.toml"));
    EXPECT_EQ(board.chips.back().name, "good");
    if (*problem == '\0') {
      EXPECT_THAT(board.problems, testing::IsEmpty()) << board.problems.at(0).message();
    } else {
      ASSERT_FALSE(board.problems.empty());
      const auto& [chip, line, place, why] = board.problems.at(0);
      // (A line of its own tells the map.)
      std::string told = fmt::format("{}: chip '{}': {}", line - 1, chip, why);
      if (const size_t at = told.find(directory.file("")); at != told.npos) {
        told.erase(at, directory.file("").size());
      }
      EXPECT_THAT(told, StartsWith(problem));
    }
  }
}

// One queue for each bus, however many chips share it, and another one behind another node.
TEST(SharedRelay, IsOneForEachNode) {
  const Testing::StateDirectory directory;
  const std::string node = directory.file("i2c-1");
  std::ofstream(node) << "";
  auto first = Board::sharedRelay(node);
  EXPECT_EQ(first, Board::sharedRelay(node));
  std::filesystem::rename(node, directory.file("gone"));
  EXPECT_THROW(Board::sharedRelay(node), std::system_error);
  std::ofstream(node) << "";
  auto second = Board::sharedRelay(node);
  EXPECT_NE(first, second);
  first = nullptr;
  EXPECT_EQ(second, Board::sharedRelay(node));
  second = nullptr;
  EXPECT_EQ(Board::sharedRelay(node)->name(), Orb::String(node));
}

}  // namespace
