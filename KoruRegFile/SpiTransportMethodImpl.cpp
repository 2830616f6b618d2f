#include "KoruRegFile/SpiTransportMethodImpl.h"

#include <fmt/format.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>

namespace KoruRegFile {

namespace {

constexpr uint32_t highestAddress = 0xff;
constexpr uint32_t highestValue = 0xffff;

Spi::CmdData cmdData(uint32_t byte) { return {0, static_cast<uint8_t>(byte)}; }

}  // namespace

SpiTransportMethodImpl::SpiTransportMethodImpl(
    const Orb::Ptr<const Plat::Pax>& pax, const char* name,
    const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile)
    : BaseTransportMethodImpl(name, addrBlockSize, regFile),
      accel_(Orb::make<HalSpiAccel::Accel>(pax)),
      config_(Orb::make<Spi::Config>(pax->name())),
      status_(Orb::make<Spi::Status>(pax->name())),
      spiSm_(Spi::SpiSm::SpiSmIs(accel_, config_, status_)) {}

// Who waits for the outcome of which request. A callback may destroy the transport.
class SpiTransportMethodImpl::Outcomes : public Spi::Status::Notifiee {
 public:
  explicit Outcomes(const Orb::Ptr<Spi::Status>& status) : Notifiee(status) {
    hasNotificationActiveIs(true);
  }
  void add(uint32_t id, uint32_t value, AccessCallback callback) {
    waiting_[id] = {value, std::move(callback)};
  }
  void del(uint32_t id) { waiting_.erase(id); }

  void onDone() override {
    const uint32_t id = notifier()->lastId();
    if (const auto waiting = waiting_.extract(id)) {
      waiting.mapped().callback({.value = waiting.mapped().value});
    }
  }
  // Also told of errors that are forgotten.
  void onError(uint32_t id) override {
    if (!notifier()->error().has(id)) return;
    if (const auto waiting = waiting_.extract(id)) {
      waiting.mapped().callback(
          {.failure = TransportFailure{.reason = std::string(notifier()->error()(id)),
                                       .error = notifier()->lastError()}});
    }
  }

 private:
  struct Waiting {
    uint32_t value;
    AccessCallback callback;
  };
  std::unordered_map<uint32_t, Waiting> waiting_;
};

SpiTransportMethodImpl::~SpiTransportMethodImpl() = default;

void SpiTransportMethodImpl::regWriteWithOutcome(const char* regName, uint32_t value,
                                                 AccessCallback callback) {
  if (config_->requests() == Spi::Config::capacity) {
    throw TransportError("the queue is full", ENOBUFS);
  }
  if (!outcomes_) outcomes_ = std::make_unique<Outcomes>(status_);
  const uint32_t id = nextRequestId_;
  outcomes_->add(id, value, std::move(callback));
  try {
    regWrite(regName, value);
  } catch (...) {
    outcomes_->del(id);
    throw;
  }
}

uint32_t SpiTransportMethodImpl::regRead(const char*) {
  throw std::runtime_error("SPI read not implemented!");
}

void SpiTransportMethodImpl::regWrite(const char* regName, uint32_t value) {
  const auto reg = regFileHelper()->findRegisterByName(regName);
  Spi::Request request(nextRequestId_++);
  if (reg.address > highestAddress) {
    throw std::runtime_error(fmt::format("SPI address {} longer than 8 bits", reg.address));
  }
  if (value > highestValue) {
    throw std::runtime_error(fmt::format("SPI value {} longer than 16 bits", value));
  }
  request.cmdDataIs(0, cmdData(reg.address));
  request.cmdDataIs(1, cmdData(value >> 8));
  request.cmdDataIs(2, cmdData(value));
  config_->requestEnq(request);
}

}  // namespace KoruRegFile
