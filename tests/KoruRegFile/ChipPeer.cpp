// The other process of a test: `ChipPeer STATE-DIRECTORY FIELD VALUE...` is the agent of chip0. It
// writes fields of its register ctrl, and then serves whoever reads the configuration.

#include <string>

#include "KoruRegFile/LogicalSms.h"
#include "Orb/EventLoop.h"
#include "Shoal/StatePath.h"
#include "testing/FieldChip.h"

int main(int argc, char** argv) {
  Shoal::stateDirectoryIs(argv[1]);
  const auto manager = OrbPool::entityManagerFactory();
  const auto chip = KoruRegFile::logicalChipFactory("chip0");
  Testing::describe(*chip, Testing::threeFields);
  chip->mountShadowFields(manager, "config/chip0", "unused");
  chip->readyIs(true);
  const auto writeSm = KoruRegFile::logicalWriteSmFactory(chip);
  for (int i = 2; i + 1 < argc; i += 2) {
    chip->fieldWrite("ctrl", argv[i], static_cast<uint32_t>(std::stoul(argv[i + 1])));
  }
  Orb::eventLoop().run();
}
