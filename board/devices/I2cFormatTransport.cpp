#include "board/devices/I2cFormatTransport.h"

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

#include "board/devices/internal/ExchangeFailure.h"

namespace Board {

using KoruRegFile::I2cBusy;
using KoruRegFile::TransportError;

namespace {

// A bus that is busy, or that another master has won, is tried again as the relay does.
constexpr std::chrono::milliseconds pauseBetweenTries{1};
constexpr int mostTries = 100;

// Holds the bus's lock, which keeps this process out of the other ones' transactions.
class Locked {
 public:
  Locked(Smbus::Bus& bus, I2cBusy busy) : bus_(bus) {
    const int error = busy == I2cBusy::wait ? bus.lock() : bus.tryLock();
    if (error == EWOULDBLOCK) {
      throw TransportError("another process holds the lock of the bus", EAGAIN);
    }
    if (error != 0) {
      throw TransportError(
          fmt::format("cannot lock the bus: {}", std::generic_category().message(error)), error);
    }
  }
  ~Locked() { bus_.unlock(); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  Smbus::Bus& bus_;
};

}  // namespace

std::string exchangeFailure(const char* what, const char* regName, uint8_t device,
                            const std::string& node, int error, const std::string& whyNot) {
  std::string reason =
      error == EBADMSG ? "its packet error check is wrong" : std::generic_category().message(error);
  if (error == EOPNOTSUPP && !whyNot.empty()) reason = whyNot;
  return fmt::format("{} register {} of device {:#x} on {} failed: {}", what, regName, device, node,
                     reason);
}

I2cFormatTransport::I2cFormatTransport(const std::string& node, uint8_t device,
                                       std::shared_ptr<const I2cFormat> format,
                                       const MapSource& map, I2cBusy busy)
    : FormatTransport(map, addrBlockSize),
      node_(node),
      device_(device),
      format_(std::move(format)),
      busy_(busy),
      bus_(node) {
  // Plain messages carry the address themselves; this has the kernel refuse one that a driver has.
  if (const int error = bus_.deviceIs(device_)) {
    throw std::system_error(error, std::generic_category(),
                            fmt::format("cannot use device {:#x} on {}", device_, node_));
  }
}

uint32_t I2cFormatTransport::regRead(const char* regName) {
  const auto reg = registerToRead(regName, *format_);
  const auto message = format_->readMessage(reg.address, reg.width);
  uint8_t value[4];
  const std::span<uint8_t> in(value, message.awaited);
  exchange("reading", regName, {message.out(), in, format_->pec});
  return format_->valueOf(in, reg.width);
}

void I2cFormatTransport::regWrite(const char* regName, uint32_t value) {
  const auto reg = registerToWrite(regName, value, *format_);
  const auto message = format_->writeMessage(reg.address, reg.width, value);
  exchange("writing", regName, {message.out(), {}, format_->pec});
}

int I2cFormatTransport::tryExchange(const Smbus::Bus::Exchange& exchange) {
  const Locked locked(bus_, busy_);
  return bus_.exchange(exchange);
}

void I2cFormatTransport::exchange(const char* what, const char* regName,
                                  const Smbus::Bus::Exchange& exchange) {
  int error = tryExchange(exchange);
  for (int tries = 1; error == EAGAIN && busy_ == I2cBusy::wait && tries < mostTries; ++tries) {
    std::this_thread::sleep_for(pauseBetweenTries);
    error = tryExchange(exchange);
  }
  if (error == 0) return;
  throw TransportError(
      exchangeFailure(what, regName, device_, node_, error,
                      bus_.whyNoExchange(exchange.out.size(), exchange.in.size(), exchange.pec)),
      error);
}

}  // namespace Board
