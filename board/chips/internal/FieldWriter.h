#pragma once

// Writes fields of a chip together. While their values go into the configuration table, one by one,
// the shadow field reactor hears of none of them; then every register that they are in is written
// once. A file in the state directory has them all until the table does, so that a kill in between
// leaves all or none. Fields that are sent once never reach the table: their register is written
// with them, and counts as written without. Used on the framework's thread.

#include <string>
#include <vector>

#include "KoruRegFile/LogicalChip.h"
#include "KoruRegFile/ShadowSms.h"
#include "KoruRegFile/TransportError.h"
#include "KoruRegFile/TransportMethod.h"
#include "board/chips/FieldWrites.h"
#include "board/chips/internal/ChipFiles.h"

namespace Board {

class FieldWriter {
 public:
  // What is written to: without a reactor and a transport only the table is, and the registers
  // follow when the chip is brought up.
  struct Target {
    Orb::Ptr<KoruRegFile::LogicalChip> chip;
    Orb::Ptr<KoruRegFile::ShadowFieldsSm> shadowSm;
    Orb::Ptr<KoruRegFile::TransportMethod> transport;
  };

  explicit FieldWriter(const ChipFiles& files) : files_(files) {}

  // Throws std::invalid_argument for a value that its field cannot hold.
  static WritePlan plan(const Target& target, const std::vector<FieldWrite>& writes,
                        RegisterOrder order);

  // `done` is called once, when what is sent once has ended: in the call, unless the transport ends
  // its writes later. It may destroy this. It is told of what a reactor threw, too; the rest is
  // written all the same. Throws, with nothing touched and without a call, std::runtime_error when
  // a field is to be sent and the chip is not up, std::system_error when the values cannot be kept,
  // and std::logic_error inside of another write.
  void write(const Target& target, const WritePlan& plan, KoruRegFile::AccessCallback done);

  // Why a restart would take back what was written since; empty when it will not. Tries to remove
  // what is in the way.
  std::string whyLeft();

 private:
  void keep(const WritePlan& plan);

  const ChipFiles& files_;
  bool isWriting_ = false;
  bool isLeft_ = false;  // the file of a write that is over
};

}  // namespace Board
