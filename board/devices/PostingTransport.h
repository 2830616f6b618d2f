#pragma once

// How the agent uses the transports whose accesses may end later than they are made, or would have
// to wait: a plain write is posted, and one that fails raises the error flag then. What finds the
// bus busy or locked is tried again from the event loop, with everything behind it, so that nobody
// else is held up; so is what follows the write of a register after which the chip is to be left
// alone. Accesses keep their order. Writes are counted while they are in flight, so that
// somebody can mark the chip as long as nobody knows whether its registers hold what was written.
// Used on the framework's thread.
//
// A callback is always called: from the loop, with a failure, when the transport goes before.

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "KoruRegFile/TransportMethod.h"
#include "Orb/Counter.h"
#include "Orb/LoopTask.h"
#include "board/Export.h"

namespace Board {

// How often a busy bus is tried before an access has failed, and how long it is left alone
// meanwhile. A bus that stays busy is tried so often once, not for each access that waits for it.
struct Patience {
  std::chrono::milliseconds pause{2};
  int tries = 2500;
};

class BOARD_EXPORT PostingTransport : public KoruRegFile::BaseTransportMethodImpl {
 public:
  // A plain write that comes while so many are in flight fails at once: a bus that stands still
  // does not fill the memory.
  static constexpr size_t mostInFlight = 1024;

  // Whether the plain writes of a transport have ended when they return.
  enum class Ends { atOnce, later };

  // The method, whose flag is raised, owns this. `inner` carries the accesses out; what it throws
  // with EAGAIN is tried again.
  PostingTransport(KoruRegFile::TransportMethod& method,
                   std::unique_ptr<KoruRegFile::BaseTransportMethodImpl> inner, Ends ends,
                   Patience patience = {});
  ~PostingTransport() override;

  // How long the chip is left alone after a write of that register.
  using Settling = std::map<std::string, std::chrono::milliseconds, std::less<>>;
  void settlingIs(Settling settling) { settling_ = std::move(settling); }

  // Keeps all accesses back, any number of them, until they are released: in the order of `before`
  // where that tells two registers apart, otherwise as they came.
  void hold() { isHeld_ = true; }
  void release(const std::function<bool(const char* reg, const char* other)>& before);

  // As TransportMethod::implPtrWrap(), for what carries the accesses out.
  void innerWrap(const KoruRegFile::TransportMethod::Wrap& wrap) {
    inner_ = wrap(std::move(inner_));
  }

  size_t inFlight() const { return inFlight_; }
  // Called when the count has changed: before a plain write that was posted returns, and after the
  // error flag has told of one that failed.
  void observerIs(std::function<void()> observer) { observer_ = std::move(observer); }

  // Throws a TransportError with EAGAIN while others wait for the bus, whom it would overtake.
  uint32_t regRead(const char* regName) override;
  void regWrite(const char* regName, uint32_t value) override;
  void regReadWithCallback(const char* regName, KoruRegFile::RegReadCallback callback) override;
  void regWriteWithCallback(const char* regName, uint32_t value,
                            KoruRegFile::RegWriteCallback callback) override;
  void regReadWithOutcome(const char* regName, KoruRegFile::AccessCallback callback) override;
  void regWriteWithOutcome(const char* regName, uint32_t value,
                           KoruRegFile::AccessCallback callback) override;

 private:
  class Access;
  using AccessPtr = std::shared_ptr<Access>;

  using Clock = std::chrono::steady_clock;

  void post(const AccessPtr& access, bool isBusy = false);
  bool mustWait() const;
  void beginSettling(const char* regName);
  void endSettling(const char* regName, bool isDone);
  bool wroteAtOnce(const char* regName, uint32_t value);
  bool begin(const AccessPtr& access);
  void ended(const AccessPtr& access, const KoruRegFile::AccessOutcome& outcome);
  void count(const AccessPtr& access);
  void tryAgain();
  void goOn();

  KoruRegFile::TransportMethod& method_;
  const Ends ends_;
  const Patience patience_;
  const std::shared_ptr<const bool> alive_ = std::make_shared<bool>(true);
  std::function<void()> observer_;
  size_t inFlight_ = 0;
  Orb::Counter posted_;
  Orb::Counter finished_;
  std::deque<AccessPtr> waiting_;  // for the bus, or the chip
  int tries_ = 0;                  // of the one in front
  bool isHeld_ = false;
  Settling settling_;
  bool isSettling_ = false;    // a write is under way, after which the chip is left alone
  Clock::time_point settled_;  // when that is over
  Orb::LoopTask task_;
  // Goes first: nothing is told of its accesses after that.
  std::unique_ptr<KoruRegFile::BaseTransportMethodImpl> inner_;
};

}  // namespace Board
