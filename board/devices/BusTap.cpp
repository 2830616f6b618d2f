#include "board/devices/BusTap.h"

#include <cerrno>
#include <exception>
#include <utility>

namespace Board {

using KoruRegFile::AccessCallback;
using KoruRegFile::AccessOutcome;
using KoruRegFile::RegCallbackStatus;
using KoruRegFile::RegReadCallback;
using KoruRegFile::RegWriteCallback;
using KoruRegFile::TransportFailure;

namespace {

AccessOutcome outcomeOf(RegCallbackStatus status, uint32_t value) {
  if (status == RegCallbackStatus::done) return {.value = value};
  return {.failure = TransportFailure{.reason = "the access failed"}};
}

}  // namespace

BusTap::~BusTap() = default;

// What is thrown is told, unless the bus was busy, or it is what a callback throws.
template <class Operation>
void BusTap::make(BusRecorder::Access& access, Operation operation) {
  try {
    operation();
  } catch (const std::exception& e) {
    TransportFailure failure = TransportFailure::of(e);
    failure.error == EAGAIN ? access.withdraw() : access.ended({.failure = std::move(failure)});
    throw;
  }
}

template <class Operation>
uint32_t BusTap::read(std::string_view reg, Operation operation) {
  const auto access = recorder_->begins(reg, false, 0);
  uint32_t value = 0;
  make(*access, [&] { value = operation(); });
  access->ended({.value = value});
  return value;
}

template <class Operation>
void BusTap::write(std::string_view reg, uint32_t value, Operation operation) {
  const auto access = recorder_->begins(reg, true, value);
  make(*access, operation);
  access->ended({});
}

uint32_t BusTap::regRead(const char* regName) {
  if (!recorder_->isWanted()) return inner_->regRead(regName);
  return read(regName, [&] { return inner_->regRead(regName); });
}

void BusTap::regWrite(const char* regName, uint32_t value) {
  if (!recorder_->isWanted()) return inner_->regWrite(regName, value);
  write(regName, value, [&] { inner_->regWrite(regName, value); });
}

uint32_t BusTap::foundRegRead(const Hardware::KoruRegFile::HardwareRegister& reg) {
  if (!recorder_->isWanted()) return inner_->foundRegRead(reg);
  return read(reg.name.view(), [&] { return inner_->foundRegRead(reg); });
}

void BusTap::foundRegWrite(const Hardware::KoruRegFile::HardwareRegister& reg, uint32_t value) {
  if (!recorder_->isWanted()) return inner_->foundRegWrite(reg, value);
  write(reg.name.view(), value, [&] { inner_->foundRegWrite(reg, value); });
}

// (Without a callback nothing is read.)
void BusTap::regReadWithCallback(const char* regName, RegReadCallback callback) {
  if (!recorder_->isWanted() || !callback) {
    return inner_->regReadWithCallback(regName, std::move(callback));
  }
  const auto access = recorder_->begins(regName, false, 0);
  make(*access, [&] {
    inner_->regReadWithCallback(
        regName, [access, callback = std::move(callback)](const char* reg, RegCallbackStatus status,
                                                          uint32_t value) {
          access->ended(outcomeOf(status, value));
          callback(reg, status, value);
        });
  });
}

void BusTap::regWriteWithCallback(const char* regName, uint32_t value, RegWriteCallback callback) {
  if (!recorder_->isWanted()) {
    return inner_->regWriteWithCallback(regName, value, std::move(callback));
  }
  if (!callback) {
    return write(regName, value, [&] { inner_->regWriteWithCallback(regName, value, {}); });
  }
  const auto access = recorder_->begins(regName, true, value);
  make(*access, [&] {
    inner_->regWriteWithCallback(
        regName, value,
        [access, callback = std::move(callback)](const char* reg, RegCallbackStatus status) {
          access->ended(outcomeOf(status, 0));
          callback(reg, status);
        });
  });
}

void BusTap::regReadWithOutcome(const char* regName, AccessCallback callback) {
  if (!recorder_->isWanted()) return inner_->regReadWithOutcome(regName, std::move(callback));
  const auto access = recorder_->begins(regName, false, 0);
  make(*access, [&] {
    inner_->regReadWithOutcome(
        regName, [access, callback = std::move(callback)](const AccessOutcome& outcome) {
          access->ended(outcome);
          callback(outcome);
        });
  });
}

void BusTap::regWriteWithOutcome(const char* regName, uint32_t value, AccessCallback callback) {
  if (!recorder_->isWanted()) {
    return inner_->regWriteWithOutcome(regName, value, std::move(callback));
  }
  const auto access = recorder_->begins(regName, true, value);
  make(*access, [&] {
    inner_->regWriteWithOutcome(
        regName, value, [access, callback = std::move(callback)](const AccessOutcome& outcome) {
          access->ended(outcome);
          callback(outcome);
        });
  });
}

}  // namespace Board
