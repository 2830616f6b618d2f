#pragma once

// The chips of a board, kept in step with the system file. Used on the framework's thread.

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "KoruRegFile/LogicalChip.h"
#include "KoruRegFile/ShadowSms.h"
#include "KoruRegFile/TransportMethod.h"
#include "Orb/Backoff.h"
#include "Orb/DirectoryWatch.h"
#include "Orb/LoopTask.h"
#include "board/Export.h"
#include "board/chips/FieldWrites.h"
#include "board/chips/Health.h"
#include "board/chips/History.h"
#include "board/chips/Options.h"
#include "board/description/Description.h"

namespace Board {

struct AccessCounts;
struct Acting;
struct BusAccess;
class BusRecorder;
class ChipKeeper;
class FieldIndex;
class NodeWatch;
class StatusSm;
class Verification;

class BOARD_EXPORT BoardKeeper {
 public:
  // What somebody wants to hear of. The keeper is told to forget it before it goes.
  class Observer {
   public:
    virtual ~Observer() = default;
    // A chip appeared, went, or changed its health.
    virtual void chipChanged(const std::string& /*chip*/) {}
    // A logical field was written, by anybody.
    virtual void fieldChanged(const std::string& /*chip*/,
                              const KoruRegFile::LogicalFieldName& /*field*/) {}
    // A field that is sent once has been sent.
    virtual void fieldSent(const std::string& /*chip*/, const Orb::String& /*reg*/,
                           const Orb::String& /*field*/, uint32_t /*value*/) {}
    // A register did not hold what was written; it is written again.
    virtual void chipDrifted(const std::string& /*chip*/, const Drift& /*drift*/) {}
    // The chip was reset behind the agent's back; it is rewritten.
    virtual void chipWasReset(const std::string& /*chip*/, const std::string& /*why*/) {}
    // Something went over the chip's bus, and somebody had wanted to hear of it: busRecorder().
    virtual void busAccessed(const std::string& /*chip*/, const BusAccess& /*access*/,
                             uint64_t /*number*/) {}
  };

  // As long as it lives, what is written counts as that process's doing; one at a time.
  class BOARD_EXPORT ActingFor {
   public:
    ActingFor(BoardKeeper& keeper, const Actor& actor);
    ~ActingFor();
    ActingFor(const ActingFor&) = delete;
    ActingFor& operator=(const ActingFor&) = delete;

   private:
    const std::shared_ptr<Acting> acting_;
  };

  // What is written from now on may be recorded together, by keepRecords(), before anybody is told
  // of it.
  void holdRecords();
  void keepRecords();

  explicit BoardKeeper(Options options);
  // Takes all chips down; their tables stay.
  ~BoardKeeper();
  BoardKeeper(const BoardKeeper&) = delete;
  BoardKeeper& operator=(const BoardKeeper&) = delete;

  // Brings chips up that are new, takes those down that are gone, and replaces those that are
  // described otherwise. A chip whose description cannot be used stays as it is.
  void boardIs(const Description& board);

  // All chips, refused ones included, by name.
  std::vector<std::string> chipNames() const;
  bool hasChips() const { return !keepers_.empty() || !refused_.empty(); }
  bool hasChip(std::string_view chip) const;
  // The first one of that name, or behind it; empty when there is none.
  std::string chipFrom(std::string_view name) const;
  // The description that is in force; null for a chip that is not there, or was refused.
  const Chip* description(const std::string& chip) const;
  // Of a chip that is there.
  Health health(const std::string& chip) const;

  // Of a chip that is described; null for others.
  const AccessCounts* accesses(std::string_view chip) const;

  // Of a chip that is described; null when there is none of those names. They live as long as the
  // chip is described in this way.
  const Field* field(std::string_view chip, std::string_view reg, std::string_view field) const;
  const StatusField* statusField(std::string_view chip, std::string_view reg,
                                 std::string_view field) const;
  // All of them, by register; null for a chip that is not described.
  const FieldIndex* fields(std::string_view chip) const;
  // What can be read back of it; likewise.
  const Verification* verification(std::string_view chip) const;
  // Expires when the chip is taken down, or is described otherwise.
  std::weak_ptr<const void> lifeOf(std::string_view chip) const;

  // What writing fields of the chip together would do. Throws std::invalid_argument for a value
  // that a field cannot hold, std::runtime_error for a chip that is not there.
  WritePlan plan(const std::string& chip, const std::vector<FieldWrite>& writes,
                 RegisterOrder order = RegisterOrder::ofMap) const;
  // Does it, at once; registers that cannot be written now follow. `done` is called once, when what
  // is sent only once has ended; whatever is written, LogicalChip::fieldWrite() knows of no kinds,
  // and has such a field stay. Throws, with nothing touched and without a call,
  // std::runtime_error when that cannot be, and inside of another write of the chip
  // std::logic_error.
  void write(const std::string& chip, const WritePlan& plan, KoruRegFile::AccessCallback done = {});
  // Has all registers of the chip written anew, or those at the addresses, and tells how the first
  // attempt ended: at once or from the event loop. Throws std::runtime_error for a chip that is not
  // up.
  void rewrite(const std::string& chip, KoruRegFile::AccessCallback done = {});
  void rewrite(const std::string& chip, std::vector<uint32_t> addresses,
               KoruRegFile::AccessCallback done = {});

  // Why a restart may not go on with what was written to the chip; empty when it will.
  // Files are looked at once for all calls that name the same `round`, which is not 0.
  std::string whyUnsafe(const std::string& chip, uint64_t round = 0);

  // Says whether observers hear of the bus of a chip of that name, also when it is described
  // otherwise.
  BusRecorder& busRecorder(const std::string& chip);

  // Serves the event loop until no writes are in flight, or for that long.
  void settle(std::chrono::milliseconds limit) const;

  // Null when the chip has none.
  Orb::Ptr<KoruRegFile::LogicalChip> logicalChip(const std::string& chip) const;
  Orb::Ptr<KoruRegFile::TransportMethod> transport(const std::string& chip) const;
  Orb::Ptr<KoruRegFile::ShadowFieldsSm> shadowSm(const std::string& chip) const;

  // Each hears of what happens from then on; it may go in a call of its own.
  void observe(Observer& observer);
  void forget(const Observer& observer);

 private:
  class FieldObserver;

  // One that throws does not keep the others from hearing of it.
  template <class Tell>
  void tellObservers(Tell tell) const {
    std::exception_ptr failure;
    for (size_t i = 0; i < observers_.size(); ++i) {
      try {
        if (observers_[i]) tell(*observers_[i]);
      } catch (...) {
        if (!failure) failure = std::current_exception();
      }
    }
    if (failure) std::rethrow_exception(failure);
  }
  void tell(const Description& board);
  void refuse(const std::string& chip, const std::string& reason);
  void describe(const Chip& chip);
  void bringUp(const Chip& chip);
  void takeDown(const std::string& chip);
  void tablesChanged();
  void makeAnew(const std::string& chip);
  void changed(const std::string& chip);
  ChipKeeper& keeperOf(const std::string& chip) const;

  const Options options_;
  const std::shared_ptr<Acting> acting_;
  std::map<std::string, std::unique_ptr<ChipKeeper>, std::less<>> keepers_;
  std::map<std::string, std::unique_ptr<FieldObserver>> fieldObservers_;
  std::map<std::string, std::shared_ptr<BusRecorder>> busRecorders_;
  std::map<std::string, std::string, std::less<>> refused_;  // chips without a keeper, and why
  std::set<std::string> told_;                               // problems of the last board
  std::vector<std::unique_ptr<Orb::DirectoryWatch>> tableWatches_;
  std::unique_ptr<NodeWatch> nodes_;
  Orb::Ptr<StatusSm> sm_;
  Orb::Backoff backoff_;
  Orb::LoopTask lookAgain_;           // at tables that could not be made anew
  std::vector<Observer*> observers_;  // null for one that is gone
};

}  // namespace Board
