#pragma once

// Keeps one chip up: brings it up from its description, tries again when that fails, and rewrites
// its registers when they may not hold what was asked for. Owned by the BoardKeeper; used on the
// framework's thread, served on the event loop.
//
// A failed register write is recorded by the library as done. The keeper hears of it from the error
// flag, before that record is made, and marks the chip on the disk: a marked chip is rewritten,
// register by register, until all of them have been written and the flag stays down. Delays between
// the attempts grow. A transport that posts its writes fails after the record: the mark is there as
// long as a write is in flight, too. A write that needs the mark when it cannot be made is not
// safe, and whoever asked for it is told (whyUnsafe()).
//
// A chip that asks for an order has its registers written in it when it is brought up, too: its
// transport keeps them back until all are there.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "KoruRegFile/LogicalChip.h"
#include "KoruRegFile/ShadowSms.h"
#include "KoruRegFile/TransportMethod.h"
#include "Orb/EventLoop.h"
#include "Orb/Seldom.h"
#include "board/chips/FieldIndex.h"
#include "board/chips/FieldWrites.h"
#include "board/chips/Health.h"
#include "board/chips/Options.h"
#include "board/chips/Verification.h"
#include "board/chips/internal/ChipFiles.h"
#include "board/chips/internal/ChipHistory.h"
#include "board/chips/internal/FieldWriter.h"
#include "board/chips/internal/FieldsDiffering.h"
#include "board/chips/internal/ReadBack.h"
#include "board/chips/internal/StatusSm.h"
#include "board/description/Description.h"
#include "board/devices/BusRecorder.h"

namespace Board {

class ChipKeeper {
 public:
  // None of these may destroy the keeper.
  struct Callbacks {
    std::function<void()> healthChanged;
    std::function<void(const Drift& drift)> drifted;
    std::function<void(const std::string& why)> wasReset;
  };

  ChipKeeper(StatusSm& sm, const Options& options, Chip description, Callbacks callbacks,
             std::shared_ptr<Acting> acting);
  // Takes the chip down.
  ~ChipKeeper();
  ChipKeeper(const ChipKeeper&) = delete;
  ChipKeeper& operator=(const ChipKeeper&) = delete;

  void bringUp();
  // From now on changes of the logical chip's fields are told, and go into the history.
  void fieldsAreTold(const KoruRegFile::LogicalChip& chip);
  void fieldChanged(const KoruRegFile::LogicalChip& chip,
                    const KoruRegFile::LogicalFieldName& field);

  const Chip& description() const { return description_; }
  const FieldIndex& fields() const { return index_; }
  const Verification& verification() const { return verification_; }
  // Expires with the keeper.
  std::weak_ptr<const void> life() const { return life_; }
  Health health() const;
  const AccessCounts& accesses() const { return history_->counts(); }
  // Hears of what goes over the chip's bus from now on; one for as long as the keeper lives.
  void busRecorderIs(std::shared_ptr<BusRecorder> recorder);
  // A newer description that cannot be used; empty when there is none.
  void refusalIs(const std::string& reason);

  // As of FieldWriter; std::runtime_error when there is no logical chip.
  WritePlan plan(const std::vector<FieldWrite>& writes, RegisterOrder order) const;
  void write(const WritePlan& plan, KoruRegFile::AccessCallback done);
  // Writes all registers anew, or those at the addresses, and tells how the first attempt ended.
  // Throws std::runtime_error when the chip is not up.
  void rewrite(KoruRegFile::AccessCallback done);
  void rewrite(std::vector<uint32_t> addresses, KoruRegFile::AccessCallback done);
  // The device's file has appeared, or another one in its place.
  void deviceAppeared();

  // Why a restart may not go on with what was written to the chip; empty when it will. Tries to
  // make the mark that is missing.
  // Files are looked at once for all calls that name the same `round`, which is not 0.
  std::string whyUnsafe(uint64_t round = 0);
  // Whether the lock files of the chip's tables are still those that were locked: without them
  // somebody else may write the tables, and nobody will find them again.
  bool hasItsTables() const;
  // Saves what the tables hold, for new ones. Throws std::runtime_error.
  void saveValues() const;

 private:
  class ErrorObserver;
  struct Pass;

  std::vector<KeptField> heldFields(const KoruRegFile::LogicalChip& chip) const;
  void noteValues() const;
  void tryToBringUp();
  ChipParts makeParts();
  void tableIsWhole();
  void makeTransport();
  void noteLocks();
  void writeFailed();
  void inFlightChanged();
  void updateMark();
  void open();
  void tapBus();
  void reopen();
  void hold();
  void release();
  bool isBefore(const char* reg, const char* other) const;
  void startUpkeep();
  bool isIdle() const;
  void drifted(const Drift& drift);
  void wasReset();
  FieldWriter::Target target() const;
  void rewriteRegisters(std::vector<uint32_t> addresses, KoruRegFile::AccessCallback done);
  void rewriteAnyway(const std::string& why);
  void startPass();
  void passEnded(const Pass& pass);
  void passFailed(const std::string& what);
  void tellPassEnds(const KoruRegFile::AccessOutcome& outcome);
  void again(void (ChipKeeper::*step)());
  void stateIs(ChipState state, const std::string& reason = {});

  StatusSm& sm_;
  const Chip description_;
  const ChipFiles files_;
  const Delays delays_;
  const OpenTransport openTransport_;
  const Callbacks callbacks_;
  const FieldIndex index_;
  const Verification verification_;
  const std::shared_ptr<ChipHistory> history_;
  std::shared_ptr<BusRecorder> busRecorder_;  // null as long as nobody has asked for one
  bool isTapped_ = false;                     // the transport, for the recorder
  std::vector<uint32_t> values_;              // of the fields, as history knows them
  const std::shared_ptr<const void> life_ = std::make_shared<bool>(true);
  // Where a register stands that is written before or after the others, by name.
  const std::map<std::string, int, std::less<>> ranks_;
  FieldWriter writer_;
  Health health_;
  std::string refusal_;
  std::chrono::milliseconds delay_;
  bool bringingUp_ = false;
  bool isSaved_ = false;  // what the table is to hold, in a file that wins over it
  WrittenFor whyRewritten_ = WrittenFor::rewrite;
  bool rewriteDue_ = false;  // a register may not hold what the status says
  bool marked_ = false;      // on the disk
  std::string whyUnmarked_;  // when it is to be
  std::vector<std::pair<std::string, uint64_t>> locks_;  // of the tables: path and node
  uint64_t seenRound_ = 0;                               // in which they were looked at, and there
  Orb::Ptr<KoruRegFile::TransportMethod> transport_;
  PostingTransport* posting_ = nullptr;  // the transport's implementation, when it posts writes
  std::unique_ptr<ErrorObserver> errorObserver_;
  std::unique_ptr<Orb::EventWatch> timer_;
  std::shared_ptr<Pass> pass_;
  std::vector<KoruRegFile::AccessCallback> passEnds_;  // whom to tell how the pass ended
  std::unique_ptr<ReadBack> readBack_;
  std::unique_ptr<FieldsDiffering> differing_;  // once the chip has both tables
  Orb::Seldom drift_;  // (A register may not be able to hold what was written.)
};

}  // namespace Board
