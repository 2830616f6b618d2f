// System files: read as they may be, or refused with a line.

#include <fstream>

#include "Orb/Trace.h"
#include "board/description/SystemFile.h"
#include "fuzz/Input.h"
#include "testing/StateDirectory.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Testing::StateDirectory folder;
  static const bool isPrepared = [] {
    Orb::traceLevelIs("*", -1);
    std::ofstream(folder.file("map.csv")) << "number,name,type,writeable,width\n"
                                             "0,CTRL,cfg,true,16\n1,STATUS,sts,false,32\n"
                                             "2,WIDE,cfg,true,32\n";
    return true;
  }();
  static_cast<void>(isPrepared);
  try {
    const Board::Description board =
        Board::readText(Fuzz::Input(data, size).rest(), folder.file("board.toml"));
    for (const auto& problem : board.problems) {
      Fuzz::require(!problem.message().empty(), "a problem without a text");
    }
    for (const Board::Chip& chip : board.chips) {
      Fuzz::require(Board::whyNoChipName(chip.name).empty(), "a chip whose name is none");
    }
  } catch (const Board::FileError& e) {
    Fuzz::require(*e.what() != '\0', "a file is refused without a reason");
  }
  return 0;
}
