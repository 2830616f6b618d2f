#pragma once

// Reads the description of a simulated board; docs/Simulator.md describes it. Whatever is wrong is
// told with its line. Stateless.

#include <cstdint>
#include <string>
#include <vector>

#include "board/description/Description.h"
#include "simulator/model/Image.h"

namespace Simulator {

struct BoardFile {
  std::vector<NodeRow> nodes;
  std::vector<ChipRow> chips;
  std::vector<RegisterRow> registers;
  std::vector<FaultRow> faults;
  uint32_t memory = 0;
  std::vector<Board::Problem> problems;  // when there are any, the rows are of no use

  // "/dev/i2c-1:0x48" or "/dev/spidev0.0".
  std::string placeOf(const ChipRow& chip) const;
};

// Throws Board::FileError for a file that cannot be read, or is no TOML.
BoardFile readBoardFile(const std::string& path);

// The same from a text; `path` is what problems call it.
BoardFile readBoardText(const std::string& path, const std::string& text);

// The bytes of an image (Image.h) whose power has just come.
std::vector<uint8_t> imageOf(const BoardFile& board);

// The number of an errno by its name, 0 for none.
int errnoNamed(const std::string& name);

}  // namespace Simulator
