#include "agent/PostingTransports.h"

#include <stdexcept>
#include <utility>

#include "Orb/EventLoop.h"

namespace Agent {

using KoruRegFile::RegCallbackStatus;
using KoruRegFile::RegReadCallback;
using KoruRegFile::RegWriteCallback;

// Who waits for the end of an access. One that is dropped without a call is told from the loop,
// since its transport is being destroyed.
class PostedWrites::Answer {
 public:
  using Callback = std::function<void(RegCallbackStatus, uint32_t value)>;

  explicit Answer(Callback callback) : callback_(std::move(callback)), isPlain_(!callback_) {}
  ~Answer() {
    if (!callback_) return;
    Orb::eventLoop().defer([callback = std::move(callback_)] {
      callback(RegCallbackStatus::failed, KoruRegFile::failedReadValue);
    });
  }
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;

  bool isPlain() const { return isPlain_; }
  void forget() { callback_ = {}; }
  void call(RegCallbackStatus status, uint32_t value = 0) {
    if (const Callback callback = std::exchange(callback_, {})) callback(status, value);
  }

 private:
  Callback callback_;
  const bool isPlain_;
};

PostedWrites::PostedWrites(KoruRegFile::TransportMethod& method)
    : method_(method), posted_(method.name(), "posted"), finished_(method.name(), "finished") {}

PostedWrites::~PostedWrites() = default;

PostedWrites::Write PostedWrites::begin(const char* regName, RegWriteCallback callback) {
  Answer::Callback answer;
  if (callback) {
    answer = [name = Orb::String(regName), callback = std::move(callback)](
                 RegCallbackStatus status, uint32_t) { callback(name.c_str(), status); };
  }
  auto write = std::make_shared<Answer>(std::move(answer));
  ++inFlight_;
  posted_.increment();
  if (observer_) observer_();
  return write;
}

void PostedWrites::ended() {
  finished_.increment();
  if (observer_) observer_();
}

void PostedWrites::end(const Write& write, RegCallbackStatus status) {
  --inFlight_;
  // The flag first: whoever hears of it marks the chip before the count unmarks it.
  if (status != RegCallbackStatus::done && write->isPlain()) method_.handleExceptionGeneric();
  ended();
  write->call(status);
}

void PostedWrites::withdraw(const Write& write) {
  write->forget();
  --inFlight_;
  ended();
}

PostingRelay::PostingRelay(KoruRegFile::TransportMethod& method,
                           const KoruRegFile::I2cRelayTransportDescriptor& descriptor,
                           const char* csvPath)
    : I2cTransportRelayImpl(descriptor.relay(), descriptor.devId(), csvPath, nullptr),
      PostedWrites(method) {}

PostingRelay::~PostingRelay() = default;

void PostingRelay::regWrite(const char* regName, uint32_t value) {
  if (inFlight() >= mostInFlight) throw std::runtime_error("too many writes are in flight");
  regWriteWithCallback(regName, value, {});
}

void PostingRelay::regWriteWithCallback(const char* regName, uint32_t value,
                                        RegWriteCallback callback) {
  const Write write = begin(regName, std::move(callback));
  try {
    I2cTransportRelayImpl::regWriteWithCallback(
        regName, value,
        [this, write](const char*, RegCallbackStatus status) { end(write, status); });
  } catch (...) {
    withdraw(write);
    throw;
  }
}

void PostingRelay::regReadWithCallback(const char* regName, RegReadCallback callback) {
  if (!callback) return I2cTransportRelayImpl::regReadWithCallback(regName, {});
  const auto read = std::make_shared<Answer>(
      [name = Orb::String(regName), callback = std::move(callback)](
          RegCallbackStatus status, uint32_t value) { callback(name.c_str(), status, value); });
  try {
    I2cTransportRelayImpl::regReadWithCallback(
        regName, [read](const char*, RegCallbackStatus status, uint32_t value) {
          read->call(status, value);
        });
  } catch (...) {
    read->forget();
    throw;
  }
}

std::string PostingRelay::lastFailure() const { return std::string(relay()->lastFailure()); }

struct PostingSpi::StatusObserver : Spi::Status::Notifiee {
  explicit StatusObserver(PostingSpi& o) : Notifiee(o.status()), owner(o) {
    hasNotificationActiveIs(true);
  }
  void onDone() override { owner.onEnd(RegCallbackStatus::done); }
  // Also told of errors that are forgotten.
  void onError(uint32_t id) override {
    if (notifier()->error().has(id)) owner.onEnd(RegCallbackStatus::failed);
  }
  PostingSpi& owner;
};

PostingSpi::PostingSpi(KoruRegFile::TransportMethod& method,
                       const KoruRegFile::SpiTransportDescriptor& descriptor, const char* csvPath)
    : SpiTransportMethodImpl(descriptor.spiPax(), csvPath, nullptr),
      PostedWrites(method),
      statusObserver_(std::make_unique<StatusObserver>(*this)) {}

PostingSpi::~PostingSpi() = default;

void PostingSpi::regWrite(const char* regName, uint32_t value) {
  regWriteWithCallback(regName, value, {});
}

void PostingSpi::regWriteWithCallback(const char* regName, uint32_t value,
                                      RegWriteCallback callback) {
  const Write write = begin(regName, std::move(callback));
  writes_.push_back(write);
  isPosting_ = true;
  try {
    SpiTransportMethodImpl::regWrite(regName, value);
  } catch (...) {
    isPosting_ = false;
    if (!writes_.empty() && writes_.back() == write) {
      writes_.pop_back();
      withdraw(write);
    }
    throw;
  }
  isPosting_ = false;
}

// What ends while a write is being posted is that write, refused by a full queue; otherwise the
// oldest one.
void PostingSpi::onEnd(RegCallbackStatus status) {
  if (writes_.empty()) return;
  const Write write = isPosting_ ? writes_.back() : writes_.front();
  isPosting_ ? writes_.pop_back() : writes_.pop_front();
  end(write, status);
}

std::string PostingSpi::lastFailure() const {
  std::string last;
  for (const auto& [id, reason] : status()->error()) last = std::string(reason);
  return last;
}

}  // namespace Agent
