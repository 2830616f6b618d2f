#include "board/devices/SpiFormatTransport.h"

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include "Orb/EventLoop.h"
#include "board/devices/internal/SpiDevice.h"

namespace Board {

using KoruRegFile::AccessCallback;
using KoruRegFile::AccessOutcome;
using KoruRegFile::TransportError;
using KoruRegFile::TransportFailure;

namespace {

// As for the library's own messages.
constexpr std::chrono::milliseconds pauseBetweenTries{1};
constexpr int mostTries = 100;

}  // namespace

SpiFormatTransport::SpiFormatTransport(const std::string& node,
                                       std::shared_ptr<const SpiFormat> format,
                                       const MapSource& map)
    : QueuedFormatTransport(map, addrBlockSize),
      node_(node),
      format_(std::move(format)),
      device_(
          std::make_unique<SpiDevice>(node, format_->mode, format_->lowBitFirst, format_->speed)),
      task_(Orb::eventLoop(), [this] { serve(); }) {}

SpiFormatTransport::~SpiFormatTransport() = default;

SpiFormatTransport::Access SpiFormatTransport::readOf(const char* regName) const {
  const auto reg = registerToRead(regName, *format_);
  if (const auto why = format_->whyNotRead()) {
    throw TransportError(fmt::format("reading register {} failed: {}", regName, *why), EOPNOTSUPP);
  }
  return {reg.name, true, reg.width, 0, format_->readMessage(reg.address, reg.width), nullptr};
}

SpiFormatTransport::Access SpiFormatTransport::writeOf(const char* regName, uint32_t value) const {
  const auto reg = registerToWrite(regName, value, *format_);
  return {reg.name, false, reg.width, value, format_->writeMessage(reg.address, reg.width, value),
          nullptr};
}

int SpiFormatTransport::carryOut(const Access& access, uint32_t& value) const {
  std::array<uint8_t, SpiFormat::longestMessage> received{};
  const std::span<uint8_t> in(received.data(), access.message.size);
  int error = device_->message(access.message.out(), in);
  // The answer comes with whatever is sent next: the same read once more.
  if (error == 0 && access.isRead && format_->answer == SpiFormat::Answer::next) {
    error = device_->message(access.message.out(), in);
  }
  value = access.isRead ? format_->valueOf(in, access.width) : access.value;
  return error;
}

std::string SpiFormatTransport::failureOf(const Access& access, int error) const {
  return fmt::format("{} register {} on {} failed: {}", access.isRead ? "reading" : "writing",
                     access.regName, node_, std::generic_category().message(error));
}

void SpiFormatTransport::requireEmptyQueue() const {
  if (!queue_.empty()) throw TransportError("earlier accesses wait for the bus", EAGAIN);
}

uint32_t SpiFormatTransport::regRead(const char* regName) {
  requireEmptyQueue();
  const Access access = readOf(regName);
  uint32_t value = 0;
  if (const int error = carryOut(access, value)) {
    throw TransportError(failureOf(access, error), error);
  }
  return value;
}

void SpiFormatTransport::regWrite(const char* regName, uint32_t value) {
  requireEmptyQueue();
  const Access access = writeOf(regName, value);
  if (const int error = carryOut(access, value)) {
    throw TransportError(failureOf(access, error), error);
  }
}

void SpiFormatTransport::regReadWithOutcome(const char* regName, AccessCallback callback) {
  queue(readOf(regName), std::move(callback));
}

void SpiFormatTransport::regWriteWithOutcome(const char* regName, uint32_t value,
                                             AccessCallback callback) {
  queue(writeOf(regName, value), std::move(callback));
}

void SpiFormatTransport::queue(Access access, AccessCallback callback) {
  if (queue_.size() >= mostQueued) throw TransportError("the queue is full", ENOBUFS);
  access.callback = std::move(callback);
  queue_.push_back(std::move(access));
  task_.schedule();
}

// Telling comes last: the callback may destroy the transport, or throw.
void SpiFormatTransport::serve() {
  if (queue_.empty()) return;
  AccessOutcome outcome;
  const int error = carryOut(queue_.front(), outcome.value);
  if (error == EAGAIN && ++tries_ < mostTries) return task_.scheduleAfter(pauseBetweenTries);
  tries_ = 0;
  const Access access = std::move(queue_.front());
  queue_.pop_front();
  if (!queue_.empty()) task_.schedule();
  if (error != 0) {
    outcome = {.failure = TransportFailure{.reason = failureOf(access, error), .error = error}};
  }
  if (access.callback) access.callback(outcome);
}

}  // namespace Board
