// What simulated chips answer, byte by byte, and what the calls of a program put on the wire.

#include <gmock/gmock.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <linux/spi/spidev.h>

#include <array>
#include <cerrno>
#include <list>
#include <sstream>

#include "simulator/model/Devices.h"
#include "simulator/model/I2c.h"
#include "simulator/model/Spi.h"
#include "simulator/tool/BoardFile.h"

namespace {

using Simulator::Image;

// A board under power.
struct Board {
  explicit Board(const std::string& text) {
    const auto file = Simulator::readBoardText("board", text);
    for (const auto& problem : file.problems) ADD_FAILURE() << problem.message();
    bytes = Simulator::imageOf(file);
    image = Simulator::partsOf(bytes);
  }
  std::vector<uint8_t> bytes;
  Image image;
};

uint8_t byteIn(const std::string& text) {
  return static_cast<uint8_t>(std::stoul(text, nullptr, 16));
}

// "48w 00 48r +2": messages to chips, where +2 asks for two bytes. Returns the line of the ledger.
std::string i2c(Image& image, const std::string& text) {
  std::list<std::vector<uint8_t>> buffers;
  std::vector<Simulator::Message> messages;
  std::istringstream in(text);
  for (std::string word; in >> word;) {
    if (word.ends_with('w') || word.ends_with('r')) {
      buffers.emplace_back();
      messages.push_back({byteIn(word), word.ends_with('r'), {}});
    } else if (word.starts_with('+')) {
      buffers.back().resize(std::stoul(word));
    } else {
      buffers.back().push_back(byteIn(word));
    }
    messages.back().bytes = buffers.back();
  }
  std::string line;
  Simulator::transfer(image, 0, messages, line);
  return line.substr(1);
}

// "> 12 be ef": one chip select.
std::string spi(Image& image, const std::string& text) {
  std::vector<uint8_t> bytes;
  std::istringstream in(text.substr(1));
  for (std::string word; in >> word;) bytes.push_back(byteIn(word));
  std::string line;
  Simulator::exchange(image, 0, bytes, line);
  return line.substr(1);
}

struct Case {
  const char* what;
  const char* chip;                                               // after its name and place
  std::vector<std::pair<const char*, const char*>> transactions;  // and what the ledger says
};

class ChipOnWires : public testing::TestWithParam<Case> {};

TEST_P(ChipOnWires, AnswersBytes) {
  const std::string text = GetParam().chip;
  const bool isSpi = text.find("spi = ") != std::string::npos;
  const char* const place = isSpi ? "" : "i2c = '/dev/i2c-1:0x48'\n";
  Board board("[[chip]]\nname = 'chip'\n" + std::string(place) + text);
  for (const auto& [sent, seen] : GetParam().transactions) {
    EXPECT_EQ(isSpi ? spi(board.image, sent) : i2c(board.image, sent), seen) << sent;
  }
}

const Case cases[] = {
    {"ByteRegistersGoOnAtTheNext",
     "registers = [{ at = 0x10, reset = 1 }, { at = 0x11, reset = 2 }, { at = 0x13, reset = 4 }]",
     {{"48w 10 48r +4", "48w 10 48r 01 02 ff 04"},  // nothing stands behind 12
      {"48w 10 a0 a1 a2 a3", "48w 10 a0 a1 a2 a3"},
      {"48w 10", "48w 10"},
      {"48r +2", "48r a0 a1"},  // from where the address was left
      {"48r +2", "48r ff a3"},
      {"48w", "48w"},
      {"49w 10", "49w ! ENXIO"}}},
    {"WordsHighFirst",
     "value_bits = 16\nregisters = [{ at = 0, reset = 0x1234 }, { at = 1, bits = 12 }]",
     {{"48w 00 48r +3", "48w 00 48r 12 34 00"},
      {"48w 01 ff ff 48w 01 48r +2", "48w 01 ff ff 48w 01 48r 0f ff"},
      {"48w 01 55", "48w 01 55"},  // half a value is none
      {"48w 01 48r +2", "48w 01 48r 0f ff"}}},
    {"WordsLowFirstBehindWideAddresses",
     "value_bits = 24\nvalue_order = 'low-first'\naddress_bits = 16\naddress_order = 'low-first'\n"
     "registers = [{ at = 0x1234, reset = 0xabcdef }]",
     {{"48w 34 12 48r +3", "48w 34 12 48r ef cd ab"},
      {"48w 34 12 01 02 03 48w 34 12 48r +3", "48w 34 12 01 02 03 48w 34 12 48r 01 02 03"},
      {"48w 12 34 48r +1", "48w 12 34 48r ff"}}},
    {"TheSameAgainWithoutIncrement",
     "auto_increment = false\nregisters = [{ at = 0, reset = 7 }, { at = 1 }]",
     {{"48w 00 48r +3", "48w 00 48r 07 07 07"},
      {"48w 00 01 02", "48w 00 01 02"},
      {"48r +2", "48r 02 02"}}},
    {"FlagsInTheAddress",
     "address_mask = 0x7f\nauto_increment = 0x80\n"
     "registers = [{ at = 1, reset = 0x11 }, { at = 2, reset = 0x22 }]",
     {{"48w 81 48r +2", "48w 81 48r 11 22"}, {"48w 01 48r +2", "48w 01 48r 11 11"}}},
    {"StepsOfAddresses",
     "address_step = 4\nvalue_bits = 32\nregisters = [{ at = 4, count = 2, reset = 0x01020304 }]",
     {{"48w 08 a b c d", "48w 08 0a 0b 0c 0d"},
      {"48w 04 48r +8", "48w 04 48r 01 02 03 04 0a 0b 0c 0d"}}},
    {"WithoutAddresses",
     "address_bits = 0\nregisters = [{ at = 0, reset = 0xff }, { at = 1, reset = 5 }]",
     {{"48w 0f", "48w 0f"}, {"48r +2", "48r 0f 05"}, {"48r +1", "48r 0f"}}},
    {"HabitsOfRegisters",
     "registers = [{ at = 0, reset = 0x19, access = 'read-only' }, { at = 1, access = 'write-only' "
     "},"
     " { at = 2, reset = 0x60, clears = 0x81 }, { at = 3, reset = 0xff, write_1_to_clear = 0x0f },"
     " { at = 4, reset = 0xff, read_to_clear = 0x0f }]",
     {{"48w 00 ff 48w 00 48r +1", "48w 00 ff 48w 00 48r 19"},
      {"48w 01 ff 48w 01 48r +1", "48w 01 ff 48w 01 48r 00"},
      {"48w 02 c1 48w 02 48r +1", "48w 02 c1 48w 02 48r 40"},
      {"48w 03 05 48w 03 48r +1", "48w 03 05 48w 03 48r 0a"},  // the others are written as ever
      {"48w 04 48r +1", "48w 04 48r ff"},
      {"48w 04 48r +1", "48w 04 48r f0"}}},
    {"MemoryGoesRound",
     "address_bits = 16\nsize = 300",
     {{"48w 01 2a 01 02 03", "48w 01 2a 01 02 03"},
      {"48w 01 2a 48r +3", "48w 01 2a 48r 01 02 03"},
      {"48w 00 00 48r +2", "48w 00 00 48r 03 ff"}}},
    {"PacketErrorChecking",  // with the remainders of a long division, made elsewhere
     "value_bits = 16\nvalue_order = 'low-first'\npec = true\nregisters = [{ at = 0, count = 3 }]",
     {{"48w 01 34 12 ee", "48w 01 34 12 ee"},
      {"48w 01 48r +4", "48w 01 48r 34 12 a2 ff"},
      {"48w 01 ff ff 00", "48w 01 ff ff 00 ! EIO"},  // a wrong check keeps the value out
      {"48w 01 48r +2", "48w 01 48r 34 12"},
      {"48w 01 78 56", "48w 01 78 56"},  // without a check byte
      {"48w 01 48r +2", "48w 01 48r 78 56"}}},
    {"FaultsByRegisterAndNumber",
     "registers = [{ at = 0, reset = 7 }, { at = 1 }]\n"
     "[[chip.fault]]\nerror = 'EAGAIN'\nregister = 1\ncount = 2\n"
     "[[chip.fault]]\nerror = 'ENXIO'\ntransaction = 4\ncount = 1\n"
     "[[chip.fault]]\nerror = 'EIO'\nregister = 0\non = 'write'",
     {{"48w 01 05", "48w ! EAGAIN"},
      {"48w 01 48r +1", "48w 48r ! EAGAIN"},
      {"48w 01 48r +1", "48w 01 48r 00"},  // nothing was written before
      {"48w 01 48r +1", "48w 48r ! ENXIO"},
      {"48w 00 09", "48w ! EIO"},
      {"48w 00 48r +1", "48w 00 48r 07"}}},
    {"SpiWithFlagsInTheAddress",
     "spi = '/dev/spidev0.0'\naddress_mask = 0x7f\nread_command = 0x80\nwrite_command = 0\n"
     "registers = [{ at = 1, reset = 0x11 }, { at = 2, reset = 0x22 }]",
     {{"> 81 00 00", "> 81 00 00 < ff 11 22"},
      {"> 01 aa", "> 01 aa < ff ff"},
      {"> 81 00", "> 81 00 < ff aa"},
      {"> 82", "> 82 < ff"}}},
    {"SpiWithCommandsAndDummies",
     "spi = '/dev/spidev0.0'\ncommand_bits = 8\naddress_bits = 24\ndummy_bits = 8\n"
     "read_command = 0x0b\nwrite_command = 2\nsize = 256",
     {{"> 02 00 00 10 01 02", "> 02 00 00 10 01 02 < ff ff ff ff ff ff"},
      {"> 0b 00 00 10 00 00 00", "> 0b 00 00 10 00 00 00 < ff ff ff ff ff 01 02"},
      {"> 9f 00 00 00 00", "> 9f 00 00 00 00 < ff ff ff ff ff"}}},
    {"SpiThatAnswersInTheNextMessage",
     "spi = '/dev/spidev0.0'\nvalue_bits = 16\naddress_mask = 0x7f\nread_command = 0x80\n"
     "answer = 'next'\nregisters = [{ at = 1, reset = 0x1234 }, { at = 2 }]",
     {{"> 81 00 00", "> 81 00 00 < ff ff ff"},
      {"> 02 be ef", "> 02 be ef < ff 12 34"},
      {"> 82 00 00", "> 82 00 00 < ff ff ff"},
      {"> 81 00 00", "> 81 00 00 < ff be ef"}}},
    {"SpiInAnotherMode",
     "spi = '/dev/spidev0.0'\nmode = 3\nread_command = 0\nregisters = [{ at = 0 }]",
     {{"> 00 00", "> 00 00 < ff ff"}}},
};

INSTANTIATE_TEST_SUITE_P(Chips, ChipOnWires, testing::ValuesIn(cases),
                         [](const auto& each) { return std::string(each.param.what); });

constexpr const char* words =
    "[[bus]]\nnode = '/dev/i2c-1'\nfunctions = 'smbus'\n[[chip]]\nname = 'w'\n"
    "i2c = '/dev/i2c-1:0x48'\nvalue_bits = 16\nvalue_order = 'low-first'\npec = true\n"
    "registers = [{ at = 0, count = 8, reset = 0x1234 }]\n"
    "[[chip]]\nname = 'b'\ni2c = '/dev/i2c-1:0x50'\nsize = 256\n"
    "[[chip.fault]]\nerror = 'short'\nregister = 0x80\n"
    "[[chip]]\nname = 'taken'\ni2c = '/dev/i2c-1:0x51'\nsize = 256\ndriver = true\n";

// The calls of SMBus, as the protocol puts them on the wire.
TEST(SmbusCalls, BecomeBytes) {
  struct Call {
    bool usesPec;
    uint8_t chip, readWrite, command;
    uint32_t size;
    std::vector<uint8_t> block;  // its length first, or the data
    long result;
    const char* line;
    std::vector<uint8_t> answer = {};
  };
  constexpr uint8_t in = I2C_SMBUS_READ, out = I2C_SMBUS_WRITE;
  const Call table[] = {
      {false, 0x50, out, 0, I2C_SMBUS_QUICK, {}, 0, " 50w"},
      {false, 0x50, in, 0, I2C_SMBUS_QUICK, {}, 0, " 50r"},
      {false, 0x50, out, 0x20, I2C_SMBUS_BYTE, {}, 0, " 50w 20"},
      {false, 0x50, out, 0x20, I2C_SMBUS_BYTE_DATA, {0xab}, 0, " 50w 20 ab"},
      {false, 0x50, out, 0x21, I2C_SMBUS_WORD_DATA, {0xcd, 0xef}, 0, " 50w 21 cd ef"},
      {false, 0x50, in, 0x20, I2C_SMBUS_BYTE_DATA, {}, 0, " 50w 20 50r ab", {0xab}},
      {false, 0x50, in, 0, I2C_SMBUS_BYTE, {}, 0, " 50r cd", {0xcd}},
      {false, 0x50, in, 0x20, I2C_SMBUS_WORD_DATA, {}, 0, " 50w 20 50r ab cd", {0xab, 0xcd}},
      {false, 0x50, out, 0x30, I2C_SMBUS_I2C_BLOCK_DATA, {2, 1, 2}, 0, " 50w 30 01 02"},
      {false,
       0x50,
       in,
       0x30,
       I2C_SMBUS_I2C_BLOCK_DATA,
       {3},
       0,
       " 50w 30 50r 01 02 ff",
       {3, 1, 2, 0xff}},
      {false,
       0x50,
       in,
       0x80,
       I2C_SMBUS_I2C_BLOCK_DATA,
       {3},
       0,
       " 50w 80 50r ff ff ff ! short",
       {2, 0xff, 0xff}},
      {false, 0x50, in, 0x30, I2C_SMBUS_I2C_BLOCK_DATA, {33}, -EINVAL, ""},
      {false, 0x50, in, 0x30, I2C_SMBUS_BLOCK_DATA, {}, -EOPNOTSUPP, ""},
      {false, 0x50, in, 0x30, 99, {}, -EINVAL, ""},
      {true, 0x48, in, 0, I2C_SMBUS_WORD_DATA, {}, 0, " 48w 00 48r 34 12 b4", {0x34, 0x12}},
      {true, 0x48, out, 1, I2C_SMBUS_WORD_DATA, {0x34, 0x12}, 0, " 48w 01 34 12 ee"},
      {true, 0x50, in, 0x30, I2C_SMBUS_BYTE_DATA, {}, -EBADMSG, " 50w 30 50r 01 02"},
      {false, 0x22, in, 0, I2C_SMBUS_BYTE, {}, -ENXIO, " 22r ! ENXIO"},
  };
  Board board(words);
  for (const Call& each : table) {
    i2c_smbus_data data = {.block = {}};
    std::copy(each.block.begin(), each.block.end(), data.block);
    i2c_smbus_ioctl_data call{each.readWrite, each.command, each.size, &data};
    Simulator::I2cOpen open{each.chip, each.usesPec};
    std::string line;
    EXPECT_EQ(Simulator::i2cControl(board.image, 0, open, I2C_SMBUS, &call, line), each.result)
        << each.line;
    EXPECT_EQ(line, each.line);
    for (size_t i = 0; i < each.answer.size(); ++i)
      EXPECT_EQ(data.block[i], each.answer[i]) << line;
  }
}

TEST(I2cDevice, RefusesWhatItsBusCannotDo) {
  Board board(words);
  Simulator::I2cOpen open;
  std::string line;
  const auto control = [&](unsigned long request, unsigned long argument) {
    return Simulator::i2cControl(board.image, 0, open, request, reinterpret_cast<void*>(argument),
                                 line);
  };
  unsigned long functions = 0;
  EXPECT_EQ(control(I2C_FUNCS, reinterpret_cast<unsigned long>(&functions)), 0);
  EXPECT_EQ(functions & (I2C_FUNC_I2C | I2C_FUNC_SMBUS_WORD_DATA | I2C_FUNC_SMBUS_PEC),
            static_cast<unsigned long>(I2C_FUNC_SMBUS_WORD_DATA | I2C_FUNC_SMBUS_PEC));
  EXPECT_EQ(control(I2C_RDWR, 0), -EOPNOTSUPP);
  EXPECT_EQ(Simulator::i2cRead(board.image, 0, open, {}, line), -EOPNOTSUPP);
  EXPECT_EQ(control(I2C_SLAVE, 0x51), -EBUSY);
  EXPECT_EQ(control(I2C_SLAVE_FORCE, 0x51), 0);
  EXPECT_EQ(control(I2C_SLAVE, 0x80), -EINVAL);
  EXPECT_EQ(control(I2C_PEC, 1), 0);
  EXPECT_EQ(Simulator::I2cOpen::of(open.offset()).address, 0x51u);
  EXPECT_TRUE(Simulator::I2cOpen::of(open.offset()).usesPec);
  EXPECT_EQ(control(0x0799, 0), -ENOTTY);
  EXPECT_EQ(line, "");
}

TEST(SpiDevice, SelectsAsTheTransfersSay) {
  Board board(
      "[[chip]]\nname = 's'\nspi = '/dev/spidev0.0'\nread_command = 0x80\naddress_mask = 0x7f\n"
      "value_bits = 16\nmode = 1\nregisters = [{ at = 1, reset = 0x1234 }]");
  std::string line;
  const auto control = [&](unsigned long request, void* argument) {
    return Simulator::spiControl(board.image, 0, request, argument, line);
  };
  uint8_t mode = SPI_MODE_1, bits = 0;
  uint32_t speed = 1000000;
  EXPECT_EQ(control(SPI_IOC_WR_MODE, &mode), 0);
  EXPECT_EQ(control(SPI_IOC_WR_MAX_SPEED_HZ, &speed), 0);
  EXPECT_EQ(control(SPI_IOC_RD_MAX_SPEED_HZ, &(speed = 0)), 0);
  EXPECT_EQ(speed, 1000000u);
  EXPECT_EQ(control(SPI_IOC_WR_LSB_FIRST, &mode), -EINVAL);
  EXPECT_EQ(control(SPI_IOC_WR_BITS_PER_WORD, &(bits = 9)), -EINVAL);
  EXPECT_EQ(control(SPI_IOC_RD_BITS_PER_WORD, &bits), 0);
  EXPECT_EQ(bits, 8);
  uint8_t out[] = {0x01, 0xbe, 0xef, 0x81};
  uint16_t in = 0;
  spi_ioc_transfer parts[3] = {};
  parts[0].tx_buf = reinterpret_cast<uintptr_t>(out);
  parts[0].len = 3;
  parts[0].cs_change = 1;  // the chip is let go between the first and the second
  parts[1].tx_buf = reinterpret_cast<uintptr_t>(out + 3);
  parts[1].len = 1;
  parts[2].rx_buf = reinterpret_cast<uintptr_t>(&in);
  parts[2].len = 2;
  parts[2].bits_per_word = 16;  // a number in memory
  EXPECT_EQ(control(SPI_IOC_MESSAGE(3), parts), 6);
  EXPECT_EQ(line, " > 01 be ef < ff ff ff > 81 00 00 < ff be ef");
  EXPECT_EQ(in, 0xbeef);
  parts[0].len = 4097;
  EXPECT_EQ(control(SPI_IOC_MESSAGE(1), parts), -EMSGSIZE);
}

}  // namespace
