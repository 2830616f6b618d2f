#include "KoruRegFile/BaseTransportMethodImpl.h"

#include <cstdio>

namespace KoruRegFile {

BaseTransportMethodImpl::BaseTransportMethodImpl(
    const char* csvPath, uint8_t addrBlockSize,
    const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile)
    : regFileHelper_(regFileHelperFactory("regFileHelper")) {
  regFileHelper_->init(csvPath, addrBlockSize, regFile);
}

BaseTransportMethodImpl::~BaseTransportMethodImpl() = default;

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

void BaseTransportMethodImpl::dumpAll() {
  const auto list = regFileHelper_->regList();
  for (const auto& [name, listed] : list->registerName()) {
    std::fprintf(stderr, "%-40s 0x%x\n", name.c_str(), regRead(name.c_str()));
  }
}

}  // namespace KoruRegFile
