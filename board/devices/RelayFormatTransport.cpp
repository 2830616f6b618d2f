#include "board/devices/RelayFormatTransport.h"

#include <fmt/format.h>

#include <array>
#include <exception>
#include <stdexcept>
#include <utility>

#include "Orb/Trace.h"
#include "board/devices/internal/ExchangeFailure.h"

namespace Board {

using namespace KoruRegFile;
using Hardware::RelayRequest;

namespace {

Orb::TraceHandle trace("RelayFormatTransport");

}  // namespace

// One access in flight; the relay fills its buffer. Hears of its request's end and is gone before
// the callback, which may destroy the transport, is called.
class RelayFormatTransport::Access : public RelayRequest::Notifiee {
 public:
  Access(RelayFormatTransport& owner, const Orb::Ptr<RelayRequest>& request, const char* regName,
         unsigned width, uint32_t written, AccessCallback callback)
      : Notifiee(request),
        owner_(owner),
        request_(request),
        regName_(regName),
        width_(width),
        value_(written),
        callback_(std::move(callback)) {
    hasNotificationActiveIs(true);
  }
  // Whatever happens to the request from now on, nothing is written to the buffer.
  ~Access() override {
    hasNotificationActiveIs(false);
    if (request_->state() >= RelayRequest::failed) return;
    try {
      request_->stateIs(RelayRequest::idle);
    } catch (const std::exception& e) {
      ORB_TRACE(trace, 0, "an observer of a withdrawn request threw: {}", e.what());
    } catch (...) {
      ORB_TRACE(trace, 0, "an observer of a withdrawn request threw");
    }
  }
  Access(const Access&) = delete;
  Access& operator=(const Access&) = delete;

  RelayRequest& request() { return *request_; }
  void begin(Smbus::U7 device, const I2cFormat::Message& message, bool pec) {
    isRead_ = message.awaited != 0;
    sent_ = message.size;
    awaited_ = message.awaited;
    request_->makeExchangeOp(device, {message.out(), {buffer_.data(), awaited_}, pec});
  }

  void onState() override {
    if (request_->state() < RelayRequest::failed) return;
    const AccessOutcome outcome = this->outcome();
    const AccessCallback callback = std::move(callback_);
    owner_.accesses_.erase(this);
    if (callback) callback(outcome);
  }

 private:
  AccessOutcome outcome() const {
    if (request_->state() != RelayRequest::done) {
      const int error = request_->error();
      const std::string whyNot = owner_.relay_->whyNoExchange(sent_, awaited_, owner_.format_->pec);
      return {.failure = TransportFailure{
                  .reason = exchangeFailure(isRead_ ? "reading" : "writing", regName_.c_str(),
                                            owner_.device_.value(),
                                            std::string(owner_.relay_->name()), error, whyNot),
                  .error = error}};
    }
    if (!isRead_) return {.value = value_};
    return {.value = owner_.format_->valueOf({buffer_.data(), awaited_}, width_)};
  }

  RelayFormatTransport& owner_;
  const Orb::Ptr<RelayRequest> request_;
  const Orb::String regName_;
  const unsigned width_;
  const uint32_t value_;  // of a write
  AccessCallback callback_;
  bool isRead_ = false;
  size_t sent_ = 0;
  size_t awaited_ = 0;
  std::array<uint8_t, 4> buffer_{};
};

RelayFormatTransport::RelayFormatTransport(const Orb::Ptr<Hardware::Relay>& relay, uint8_t device,
                                           std::shared_ptr<const I2cFormat> format,
                                           const MapSource& map)
    : QueuedFormatTransport(map, addrBlockSize),
      relay_(relay),
      device_(device),
      format_(std::move(format)) {
  if (!relay_) throw std::invalid_argument("there is no relay");
}

// (What is withdrawn tells its observers, who may not find it here any more.)
RelayFormatTransport::~RelayFormatTransport() {
  const auto accesses = std::move(accesses_);
  accesses_.clear();
}

uint32_t RelayFormatTransport::regRead(const char* regName) {
  throw std::runtime_error(fmt::format("regRead({}) not supported", regName));
}

void RelayFormatTransport::regWrite(const char* regName, uint32_t value) {
  throw std::runtime_error(fmt::format("regWrite({}, {}) not supported", regName, value));
}

void RelayFormatTransport::regReadWithOutcome(const char* regName, AccessCallback callback) {
  const auto reg = registerToRead(regName, *format_);
  auto access = std::make_unique<Access>(*this, relay_->newRequest(), regName, reg.width, 0,
                                         std::move(callback));
  access->begin(device_, format_->readMessage(reg.address, reg.width), format_->pec);
  submit(std::move(access));
}

void RelayFormatTransport::regWriteWithOutcome(const char* regName, uint32_t value,
                                               AccessCallback callback) {
  const auto reg = registerToWrite(regName, value, *format_);
  auto access = std::make_unique<Access>(*this, relay_->newRequest(), regName, reg.width, value,
                                         std::move(callback));
  access->begin(device_, format_->writeMessage(reg.address, reg.width, value), format_->pec);
  submit(std::move(access));
}

void RelayFormatTransport::submit(std::unique_ptr<Access> access) {
  RelayRequest& request = access->request();
  const Access* const key = access.get();
  accesses_[key] = std::move(access);
  try {
    request.stateIs(RelayRequest::submitted);
  } catch (...) {  // an observer's; nobody is to hear of this access any more
    accesses_.erase(key);
    throw;
  }
}

}  // namespace Board
