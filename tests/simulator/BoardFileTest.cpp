// What is wrong with a board file is told with its line.

#include <gtest/gtest.h>

#include "board/description/SystemFile.h"
#include "simulator/tool/BoardFile.h"

namespace {

constexpr const char* chip = "[[chip]]\nname = 'c'\n";
constexpr const char* i2cChip = "[[chip]]\nname = 'c'\ni2c = '/dev/i2c-1:0x48'\n";
constexpr const char* spiChip = "[[chip]]\nname = 'c'\nspi = '/dev/spidev0.0'\n";

std::string problemsOf(const std::string& text) {
  std::string all;
  try {
    for (const auto& each : Simulator::readBoardText("b", text).problems) {
      if (!all.empty()) all += '\n';
      all += each.message();
    }
  } catch (const Board::FileError& e) {
    all = e.what();
  }
  return all;
}

TEST(BoardFile, TellsWhatIsWrongAndWhere) {
  const std::string one = "registers = [{ at = 0 }]\n";
  const std::tuple<std::string, std::string> table[] = {
      {"", "b: there is no [[bus]] and no [[chip]]"},
      {"[[chip]\n", "b:1: "},
      {"chips = 1\n", "b:1: there is no key 'chips' here; there are bus, chip"},
      {"[chip]\nname = 'c'\n", "b:1: it is written as [[chip]]"},
      {"[[bus]]\nnode = 'i2c-1'\n", "b:2: node: a device file needs its whole path"},
      {"[[bus]]\nnode = '/dev/i2c-1'\nfunctions = 'all'\n",
       "b:3: functions has to be i2c or smbus"},
      {"[[bus]]\nnode = '/a'\n[[bus]]\nnode = '/a'\n", "b:4: that bus has been described already"},
      {"[[chip]]\n", "b:1: a chip needs a name, which is a string"},
      {"[[chip]]\nname = 'a:b'\n",
       "b:2: a chip's name has neither blanks nor ':' and '=', and 55 letters at most"},
      {i2cChip + one + i2cChip, "b:6: the chip in line 1 has that name"},
      {chip + one, "b:1: chip 'c': a chip needs either i2c or spi, which says where it is"},
      {chip + ("i2c = '/dev/i2c-1:0x80'\n" + one),
       "b:3: chip 'c': i2c has to be as in /dev/i2c-1:0x48, up to 0x7f"},
      {i2cChip + one + "[[chip]]\nname = 'd'\ni2c = '/dev/i2c-1:0x48'\n" + one,
       "b:7: chip 'd': the chip 'c' is there already"},
      {i2cChip + one + "[[chip]]\nname = 'd'\nspi = '/dev/i2c-1'\n" + one,
       "b:7: chip 'd': /dev/i2c-1 is a bus of another kind"},
      {i2cChip, "b:1: chip 'c': a chip needs either registers or a size"},
      {i2cChip + std::string("registers = []\n"),
       "b:4: chip 'c': registers has to be a list of tables"},
      {i2cChip + std::string("registers = [\n{ reset = 0 }]\n"),
       "b:5: chip 'c': a register needs its address, at"},
      {i2cChip + std::string("registers = [{ at = 0 },\n{ at = 256 }]\n"),
       "b:5: chip 'c': the chip cannot be asked for a register at 0x100"},
      {i2cChip + std::string("registers = [{ at = 4, count = 2 }, { at = 5 }]\n"),
       "b:4: chip 'c': there are two registers at 0x5"},
      {i2cChip + std::string("registers = [{ at = 0, bits = 4, reset = 16 }]\n"),
       "b:4: chip 'c': reset has to be a number from 0 to 15"},
      {i2cChip + std::string("registers = [{ at = 0, access = 'none' }]\n"),
       "b:4: chip 'c': access has to be read-write or read-only or write-only"},
      {i2cChip + ("address_bits = 12\n" + one),
       "b:4: chip 'c': address_bits has to be one of 0, 8, 16, 24, 32"},
      {i2cChip + ("value_bits = 33\n" + one),
       "b:4: chip 'c': value_bits has to be a number from 0 to 32"},
      {i2cChip + ("auto_increment = 0x80\n" + one),
       "b:4: chip 'c': auto_increment has to be true, false, or bits of the address outside "
       "address_mask"},
      {i2cChip + ("pec = 1\n" + one), "b:4: chip 'c': pec has to be true or false"},
      {i2cChip + one + "[[chip.fault]]\nregister = 0\n",
       "b:5: chip 'c': a fault needs an error, as in \"EIO\""},
      {i2cChip + one + "[[chip.fault]]\nerror = 'ENONSENSE'\n",
       "b:6: chip 'c': error has to be an errno as in \"EIO\", or \"short\""},
      {spiChip + ("read_command = 0x80\n" + one),
       "b:4: chip 'c': without command_bits, read_command has to be bits of the address outside "
       "address_mask"},
      {spiChip + ("dummy_bits = 4\n" + one), "b:4: chip 'c': dummy_bits has to make whole bytes"},
      {spiChip + ("mode = 4\n" + one), "b:4: chip 'c': mode has to be a number from 0 to 3"},
      {spiChip + ("size = 0\n" + std::string()),
       "b:4: chip 'c': size has to be a number from 1 to 67108864"},
  };
  for (const auto& [text, message] : table) {
    const std::string found = problemsOf(text);
    EXPECT_EQ(found.substr(0, message.size()), message) << text << found;
  }
  EXPECT_EQ(problemsOf(spiChip + ("pec = true\n" + one)).substr(0, 45),
            "b:4: chip 'c': there is no key 'pec' here; th");
  EXPECT_EQ(problemsOf(i2cChip + one), "");
}

}  // namespace
