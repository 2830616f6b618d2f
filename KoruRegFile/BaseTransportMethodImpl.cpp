#include "KoruRegFile/BaseTransportMethodImpl.h"

#include <cstdio>
#include <utility>

namespace KoruRegFile {

BaseTransportMethodImpl::BaseTransportMethodImpl(
    const char* csvPath, uint8_t addrBlockSize,
    const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile)
    : regFileHelper_(regFileHelperFactory("regFileHelper")) {
  regFileHelper_->init(csvPath, addrBlockSize, regFile);
}

BaseTransportMethodImpl::BaseTransportMethodImpl(const Orb::Ptr<RegFileHelper>& regFileHelper)
    : regFileHelper_(regFileHelper) {}

BaseTransportMethodImpl::~BaseTransportMethodImpl() = default;

uint32_t BaseTransportMethodImpl::foundRegRead(const Hardware::KoruRegFile::HardwareRegister& reg) {
  return regRead(reg.name.c_str());
}

void BaseTransportMethodImpl::foundRegWrite(const Hardware::KoruRegFile::HardwareRegister& reg,
                                            uint32_t value) {
  regWrite(reg.name.c_str(), value);
}

void BaseTransportMethodImpl::regReadWithCallback(const char* regName, RegReadCallback callback) {
  if (!callback) return;
  const uint32_t value = regRead(regName);
  callback(regName, RegCallbackStatus::done, value);
}

void BaseTransportMethodImpl::regWriteWithCallback(const char* regName, uint32_t value,
                                                   RegWriteCallback callback) {
  regWrite(regName, value);
  if (callback) callback(regName, RegCallbackStatus::done);
}

namespace {

AccessOutcome outcomeOf(RegCallbackStatus status, uint32_t value) {
  if (status == RegCallbackStatus::done) return {.value = value};
  return {.failure = TransportFailure{.reason = "the access failed"}};
}

}  // namespace

void BaseTransportMethodImpl::regReadWithOutcome(const char* regName, AccessCallback callback) {
  regReadWithCallback(regName, [callback = std::move(callback)](
                                   const char*, RegCallbackStatus status, uint32_t value) {
    callback(outcomeOf(status, value));
  });
}

void BaseTransportMethodImpl::regWriteWithOutcome(const char* regName, uint32_t value,
                                                  AccessCallback callback) {
  regWriteWithCallback(
      regName, value,
      [value, callback = std::move(callback)](const char*, RegCallbackStatus status) {
        callback(outcomeOf(status, value));
      });
}

void BaseTransportMethodImpl::dumpAll() {
  const auto list = regFileHelper_->regList();
  for (const auto& [name, listed] : list->registerName()) {
    std::fprintf(stderr, "%-40s 0x%x\n", name.c_str(), regRead(name.c_str()));
  }
}

}  // namespace KoruRegFile
