#include "Hardware/Relay.h"

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "Orb/LoopTask.h"
#include "Orb/Trace.h"
#include "Smbus/Bus.h"

namespace Hardware {

namespace {

Orb::TraceHandle trace("Relay");

// A bus that is busy is tried again after a pause, so many times; a lock that somebody else has is
// waited for, as the direct transports do.
constexpr std::chrono::milliseconds pauseBetweenTries{1};
constexpr int mostTries = 100;

constexpr size_t valueBytes = 4;

void putValue(uint8_t* bytes, uint32_t value, bool highByteFirst) {
  for (size_t i = 0; i < valueBytes; ++i) {
    bytes[highByteFirst ? valueBytes - 1 - i : i] = static_cast<uint8_t>(value >> (8 * i));
  }
}

uint32_t valueOf(const uint8_t* bytes, bool highByteFirst) {
  uint32_t value = 0;
  for (size_t i = 0; i < valueBytes; ++i) {
    value |= uint32_t{bytes[highByteFirst ? valueBytes - 1 - i : i]} << (8 * i);
  }
  return value;
}

// The offset and the value as block transactions carry them: the first byte of the offset is the
// command, the second one, if there is one, comes before the value.
struct Transaction {
  Transaction(Smbus::RelayAddress address)
      : isLong(address.addrSize() == SmbusAddrSize::twoBytes),
        command(static_cast<uint8_t>(isLong ? address.offset() >> 8 : address.offset())) {
    if (isLong) bytes[length++] = static_cast<uint8_t>(address.offset());
  }

  int write(Smbus::Bus& bus, uint32_t value, bool highByteFirst) {
    putValue(bytes + length, value, highByteFirst);
    return bus.writeBlock(command, {bytes, length + valueBytes});
  }
  int read(Smbus::Bus& bus, uint32_t& value, bool highByteFirst) {
    if (isLong) {
      if (const int error = bus.writeBlock(command, {bytes, length})) return error;
    }
    if (const int error = bus.readBlock(command, {bytes, valueBytes})) return error;
    value = valueOf(bytes, highByteFirst);
    return 0;
  }

  const bool isLong;
  const uint8_t command;
  uint8_t bytes[1 + valueBytes] = {};
  size_t length = 0;
};

}  // namespace

// The relay's bus and its place on the event loop.
struct Relay::Service {
  Service(const Orb::String& node, Orb::EventLoop& loop, std::function<void()> step)
      : bus(node), task(loop, std::move(step)) {}

  int carryOut(const RelayRequest::RegisterAccess& access) {
    if (const int error = bus.deviceIs(access.address.deviceAddress())) return error;
    Transaction transaction(access.address);
    return access.data ? transaction.read(bus, *access.data, access.highByteFirst)
                       : transaction.write(bus, access.value, access.highByteFirst);
  }
  int carryOut(const RelayRequest::Exchange& exchange) {
    if (const int error = bus.deviceIs(exchange.device)) return error;
    return bus.exchange({{exchange.out.data(), exchange.outSize}, exchange.in, exchange.pec});
  }

  static std::string textOf(const RelayRequest::RegisterAccess& access) {
    return fmt::format("{} of offset {:#x} of device {:#x}", access.data ? "read" : "write",
                       access.address.offset(), access.address.deviceAddress());
  }
  static std::string textOf(const RelayRequest::Exchange& exchange) {
    return fmt::format("{} of device {:#x}", exchange.in.empty() ? "write" : "read",
                       exchange.device);
  }

  Smbus::Bus bus;
  Orb::LoopTask task;
};

Orb::Ptr<Relay> relayFactory(const Orb::String& name, const Orb::String& node) {
  return Orb::make<Relay>(name, node);
}

Orb::Ptr<Relay> Relay::RelayIs(const Orb::String& name, const Orb::String& node) {
  return relayFactory(name, node);
}

const Orb::EntityType& Relay::entityType() {
  static const auto type = Orb::EntityTypeOf<Relay>("Hardware::Relay")
                               .attribute("name", &Relay::name)
                               .attribute("queued", &Relay::queued)
                               .attribute("lastFailure", &Relay::lastFailure);
  return type;
}

Relay::Relay(Orb::String name, const Orb::String& node, Orb::EventLoop& loop)
    : name_(std::move(name)),
      service_(std::make_unique<Service>(node, loop, [this] { serve(); })) {}

Relay::~Relay() = default;

Orb::Ptr<RelayRequest> Relay::newRequest() { return Orb::make<RelayRequest>(this); }

std::string Relay::whyNoExchange(size_t out, size_t in, bool pec) {
  return service_->bus.whyNoExchange(out, in, pec);
}

void Relay::enqueue(RelayRequest& request) {
  service_->task.schedule();
  queue_.push_back(request);
}

// Carries out the next operation of the request. Returns its error: EAGAIN means to try again.
int Relay::step(RelayRequest& request) {
  if (request.carriedOut_ == request.operations_.size()) return 0;
  const auto& operation = request.operations_[request.carriedOut_];
  int error = service_->bus.tryLock();
  if (error == EWOULDBLOCK) return EAGAIN;
  if (error == 0) {
    error = std::visit([this](const auto& what) { return service_->carryOut(what); }, operation);
    service_->bus.unlock();
  }
  if (error == EAGAIN && ++request.tries_ < mostTries) return EAGAIN;
  request.tries_ = 0;
  if (error == 0) {
    ++request.carriedOut_;
    return 0;
  }
  lastError_ = error;
  request.error_ = error;
  lastFailure_ =
      fmt::format("{} failed: {} ({})",
                  std::visit([](const auto& what) { return Service::textOf(what); }, operation),
                  std::strerror(error), error);
  ORB_TRACE(trace, 0, "{}: {}", name_, lastFailure_);
  return error == EAGAIN ? ETIMEDOUT : error;
}

// Telling the end of a request comes last: whoever is told may drop the request and the relay with
// it, or throw.
void Relay::serve() {
  if (queue_.empty()) return;
  const Orb::Ptr<RelayRequest> request(&queue_.front());
  const int error = step(*request);
  if (error == EAGAIN) {
    service_->task.scheduleAfter(pauseBetweenTries);
    return;
  }
  const bool isFinished = error != 0 || request->carriedOut_ == request->operations_.size();
  if (isFinished) queue_.pop_front();
  if (!queue_.empty()) service_->task.schedule();
  if (isFinished) request->stateIs(error == 0 ? Orb::Request::done : Orb::Request::failed);
}

}  // namespace Hardware
