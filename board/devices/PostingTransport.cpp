#include "board/devices/PostingTransport.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include "KoruRegFile/AccessObserver.h"
#include "Orb/EventLoop.h"
#include "board/devices/internal/Callbacks.h"

namespace Board {

using KoruRegFile::AccessCallback;
using KoruRegFile::AccessOutcome;
using KoruRegFile::RegReadCallback;
using KoruRegFile::RegWriteCallback;
using KoruRegFile::TransportError;
using KoruRegFile::TransportFailure;

// An access under way. One that is dropped without an end is told from the loop, since its
// transport is being destroyed.
class PostingTransport::Access {
 public:
  enum class Kind { read, write, plainWrite };

  Access(Kind kind, const char* regName, uint32_t value, AccessCallback callback)
      : kind_(kind), name_(regName), value_(value), callback_(std::move(callback)) {}
  ~Access() {
    if (!callback_) return;
    Orb::eventLoop().defer([callback = std::move(callback_)] {
      callback({.failure = TransportFailure{.reason = "the transport was closed"}});
    });
  }
  Access(const Access&) = delete;
  Access& operator=(const Access&) = delete;

  Kind kind() const { return kind_; }
  const char* regName() const { return name_.c_str(); }
  uint32_t value() const { return value_; }
  void forget() { callback_ = {}; }
  void tell(const AccessOutcome& outcome) {
    if (const AccessCallback callback = std::exchange(callback_, {})) callback(outcome);
  }

  bool hasEnded = false;
  bool isCounted = false;

 private:
  const Kind kind_;
  const Orb::String name_;
  const uint32_t value_;
  AccessCallback callback_;
};

PostingTransport::PostingTransport(KoruRegFile::TransportMethod& method,
                                   std::unique_ptr<BaseTransportMethodImpl> inner, Ends ends,
                                   Patience patience)
    : BaseTransportMethodImpl(inner->regFileHelper()),
      method_(method),
      ends_(ends),
      patience_(patience),
      posted_(method.name(), "posted"),
      finished_(method.name(), "finished"),
      task_(Orb::eventLoop(), [this] { tryAgain(); }),
      inner_(std::move(inner)) {}

PostingTransport::~PostingTransport() { inner_.reset(); }

uint32_t PostingTransport::regRead(const char* regName) {
  if (mustWait()) throw TransportError("earlier accesses wait for the bus", EAGAIN);
  return inner_->regRead(regName);
}

void PostingTransport::regWrite(const char* regName, uint32_t value) {
  const bool tries = ends_ == Ends::atOnce && !mustWait();
  if (tries && wroteAtOnce(regName, value)) return;
  if (inFlight_ >= mostInFlight && !isHeld_)
    throw TransportError("too many writes are in flight", EBUSY);
  const auto access = std::make_shared<Access>(Access::Kind::plainWrite, regName, value, nullptr);
  post(access, tries);
  if (access->isCounted && method_.accessObserver()) method_.accessObserver()->writeIsPosted();
}

// The usual road, which allocates nothing. False when the bus is busy.
bool PostingTransport::wroteAtOnce(const char* regName, uint32_t value) {
  try {
    inner_->regWrite(regName, value);
    endSettling(regName, true);
    return true;
  } catch (const TransportError& e) {
    if (e.error() == EAGAIN) return false;
    throw;
  }
}

void PostingTransport::regReadWithCallback(const char* regName, RegReadCallback callback) {
  if (!callback) return inner_->regReadWithCallback(regName, {});
  regReadWithOutcome(regName, outcomeOf(regName, std::move(callback)));
}

void PostingTransport::regWriteWithCallback(const char* regName, uint32_t value,
                                            RegWriteCallback callback) {
  if (!callback) return regWrite(regName, value);
  regWriteWithOutcome(regName, value, outcomeOf(regName, std::move(callback)));
}

void PostingTransport::regReadWithOutcome(const char* regName, AccessCallback callback) {
  post(std::make_shared<Access>(Access::Kind::read, regName, 0, std::move(callback)));
}

void PostingTransport::regWriteWithOutcome(const char* regName, uint32_t value,
                                           AccessCallback callback) {
  post(std::make_shared<Access>(Access::Kind::write, regName, value, std::move(callback)));
}

// What fails at once throws; whoever waits for its end hears of it in that way only. A callback may
// have destroyed the transport.
void PostingTransport::post(const AccessPtr& access, bool isBusy) {
  const bool mustWait = this->mustWait();
  const bool isFirst = waiting_.empty();
  try {
    if (!mustWait && !isBusy && begin(access)) {
      if (!access->hasEnded) count(access);
      return;
    }
  } catch (...) {
    access->forget();
    throw;
  }
  waiting_.push_back(access);
  if (isFirst) {
    tries_ = 0;
    if (!isHeld_) task_.scheduleAfter(mustWait ? std::chrono::milliseconds(0) : patience_.pause);
  }
  count(access);
}

// False when the bus is busy.
bool PostingTransport::begin(const AccessPtr& access) {
  const auto told = [this, access](const AccessOutcome& outcome) { ended(access, outcome); };
  if (access->kind() != Access::Kind::read) beginSettling(access->regName());
  try {
    access->kind() == Access::Kind::read
        ? inner_->regReadWithOutcome(access->regName(), told)
        : inner_->regWriteWithOutcome(access->regName(), access->value(), told);
  } catch (const TransportError& e) {
    if (access->hasEnded) throw;
    isSettling_ = false;
    if (e.error() == EAGAIN) return false;
    throw;
  } catch (...) {
    if (!access->hasEnded) isSettling_ = false;
    throw;
  }
  return true;
}

bool PostingTransport::mustWait() const {
  if (isHeld_ || isSettling_ || !waiting_.empty()) return true;
  return settled_ != Clock::time_point() && Clock::now() < settled_;
}

void PostingTransport::beginSettling(const char* regName) {
  isSettling_ = !settling_.empty() && settling_.contains(regName);
}

void PostingTransport::endSettling(const char* regName, bool isDone) {
  if (settling_.empty()) return;
  const auto found = settling_.find(regName);
  if (found == settling_.end()) return;
  isSettling_ = false;
  if (isDone) settled_ = Clock::now() + found->second;
  if (!waiting_.empty()) task_.schedule();
}

void PostingTransport::release(
    const std::function<bool(const char* reg, const char* other)>& before) {
  std::stable_sort(waiting_.begin(), waiting_.end(),
                   [&](const AccessPtr& access, const AccessPtr& other) {
                     return before(access->regName(), other->regName());
                   });
  isHeld_ = false;
  if (!waiting_.empty()) task_.schedule();
}

void PostingTransport::count(const AccessPtr& access) {
  if (access->kind() == Access::Kind::read) return;
  access->isCounted = true;
  ++inFlight_;
  posted_.increment();
  if (observer_) observer_();
}

// The flag first: whoever hears of it marks the chip before the count unmarks it.
void PostingTransport::ended(const AccessPtr& access, const AccessOutcome& outcome) {
  access->hasEnded = true;
  const std::weak_ptr<const bool> alive = alive_;
  if (access->kind() != Access::Kind::read) endSettling(access->regName(), outcome.isDone());
  if (!outcome.isDone() && access->kind() == Access::Kind::plainWrite) {
    if (access->isCounted && method_.accessObserver()) {
      method_.accessObserver()->postedWriteFailed(access->regName(), access->value(),
                                                  *outcome.failure);
    }
    method_.accessFailed(*outcome.failure);
  }
  if (access->isCounted && !alive.expired()) {
    --inFlight_;
    finished_.increment();
    if (observer_) observer_();
  }
  access->tell(outcome);
}

// One a turn. Its callback may destroy the transport. Once patience has run out, what stands behind
// gets one try each.
void PostingTransport::tryAgain() {
  if (waiting_.empty() || isHeld_ || isSettling_) return;
  if (const auto left = settled_ - Clock::now(); left > Clock::duration::zero()) {
    return task_.scheduleAfter(left);
  }
  const AccessPtr access = waiting_.front();
  waiting_.pop_front();
  const std::weak_ptr<const bool> alive = alive_;
  TransportFailure failure{.reason = "the bus stays busy, or locked by another process",
                           .error = EAGAIN};
  try {
    if (begin(access)) {
      if (!alive.expired()) goOn();
      return;
    }
    if (++tries_ < patience_.tries) {
      if (method_.accessObserver()) method_.accessObserver()->accessIsRetried();
      waiting_.push_front(access);
      return task_.scheduleAfter(patience_.pause);
    }
  } catch (const std::exception& e) {
    if (!alive.expired()) goOn();
    if (access->hasEnded) throw;  // its callback did
    failure = TransportFailure::of(e);
  }
  if (!waiting_.empty()) task_.schedule();
  ended(access, {.failure = failure});
}

void PostingTransport::goOn() {
  tries_ = 0;
  if (!waiting_.empty()) task_.schedule();
}

}  // namespace Board
