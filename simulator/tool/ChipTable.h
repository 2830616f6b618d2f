#pragma once

// Reads the table of one chip. What BoardFile.cpp is made of.

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "board/description/internal/Reading.h"
#include "simulator/tool/BoardFile.h"

namespace Simulator {

class ChipTable {
 public:
  ChipTable(Board::ChipReading& reading, const toml::table& table, BoardFile& board)
      : reading_(reading), table_(table), board_(board) {}

  // Adds the chip's rows to the board's.
  void read(const std::string& name);

 private:
  uint32_t number(std::string_view key, uint32_t fallback, uint32_t most);
  uint32_t flag(std::string_view key, bool fallback);
  uint32_t choice(std::string_view key, std::initializer_list<std::string_view> names);
  uint32_t bytes(std::string_view key, uint32_t fallback, uint32_t least);

  void readPlace(ChipRow& chip);
  void readI2cPlace(ChipRow& chip, const toml::node& node, std::string_view text);
  uint32_t nodeFor(const toml::node& node, std::string_view path, NodeKind kind);
  void readAddresses(ChipRow& chip);
  void readIncrement(ChipRow& chip);
  void readSpi(ChipRow& chip);
  void readCommand(ChipRow& chip, std::string_view key, uint32_t& has, uint32_t& command);
  void readMemory(ChipRow& chip);
  void readRegisters(ChipRow& chip);
  void readRegister(const ChipRow& chip, const toml::table& row);
  void sortRegisters(const ChipRow& chip);
  void readFaults(ChipRow& chip);
  void readFault(const ChipRow& chip, const toml::table& row);

  Board::ChipReading& reading_;
  const toml::table& table_;
  BoardFile& board_;
  uint32_t valueBits_ = 0;
};

// Copies a text that fits.
template <size_t Size>
void copyText(char (&to)[Size], std::string_view from) {
  from.copy(to, Size - 1);
}

// Why no device file can have that path; null when one can.
const char* whyNoNode(std::string_view path);

// All ones in that many bits.
constexpr uint32_t onesOf(uint32_t bits) {
  return bits >= 32 ? ~uint32_t{0} : (uint32_t{1} << bits) - 1;
}

}  // namespace Simulator
