#pragma once

// Tells what goes over the bus of a chip: the accesses that its transport makes, in the order in
// which they begin there. One that the bus was too busy for is none; it is told when it is made.
// While nobody wants to hear of them, an access costs the look at that. Used on the framework's
// thread.

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "board/Export.h"

namespace Board {

struct BusAccess {
  std::string reg;
  bool isWrite;
  uint32_t value;  // that was written, or read
  std::optional<KoruRegFile::TransportFailure> failure;
  std::chrono::steady_clock::time_point begin;
  std::chrono::steady_clock::duration took;
};

class BOARD_EXPORT BusRecorder : public std::enable_shared_from_this<BusRecorder> {
 public:
  // An access under way. One that is dropped has failed: its end is not known.
  class BOARD_EXPORT Access {
   public:
    Access(std::shared_ptr<BusRecorder> recorder, std::string_view reg, bool isWrite,
           uint32_t value);
    ~Access();
    Access(const Access&) = delete;
    Access& operator=(const Access&) = delete;

    bool hasEnded() const { return hasEnded_; }
    void ended(const KoruRegFile::AccessOutcome& outcome);
    // It was not made.
    void withdraw();

   private:
    void end(bool isTold);

    const std::shared_ptr<BusRecorder> recorder_;
    const uint64_t ticket_;
    BusAccess access_;
    bool hasEnded_ = false;
  };
  // `number` counts the accesses, from 1 on.
  using Tell = std::function<void(const BusAccess& access, uint64_t number)>;

  explicit BusRecorder(Tell tell) : tell_(std::move(tell)) {}

  // Nobody is, at first. What has been told keeps its number.
  bool isWanted() const { return isWanted_; }
  void isWantedIs(bool isWanted) { isWanted_ = isWanted; }
  // The number of the access that is told next.
  uint64_t nextNumber() const { return nextNumber_; }

  std::shared_ptr<Access> begins(std::string_view reg, bool isWrite, uint32_t value) {
    return std::make_shared<Access>(shared_from_this(), reg, isWrite, value);
  }

 private:
  // An access that waits for its end, or for that of one before it.
  struct Place {
    bool hasEnded = false;
    std::optional<BusAccess> access;  // none for one that was withdrawn
  };

  void tellEnded();

  const Tell tell_;
  bool isWanted_ = false;
  uint64_t nextNumber_ = 1;
  std::deque<Place> places_;
  uint64_t firstTicket_ = 0;  // of the first place
};

}  // namespace Board
