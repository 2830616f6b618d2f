#pragma once

// A transport over plain memory that keeps a ledger of every access, so that a test can say
// "exactly these, in this order, and nothing else". Faults are scripted per register.

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "KoruRegFile/BaseTransportMethodImpl.h"

namespace Testing {

class MemoryTransport : public KoruRegFile::BaseTransportMethodImpl {
 public:
  explicit MemoryTransport(const char* csvPath, uint8_t addrBlockSize = 4)
      : BaseTransportMethodImpl(csvPath, addrBlockSize, nullptr) {}

  uint32_t regRead(const char* regName) override {
    const uint32_t address = access("read", regName);
    ledger_.back() += " " + std::to_string(values_[address]);
    return values_[address];
  }
  void regWrite(const char* regName, uint32_t value) override {
    const uint32_t address = access("write", regName);
    ledger_.back() += " " + std::to_string(value);
    values_[address] = value;
  }

  // "read control 5", "write control 7"; a failed access stands there without a value.
  const std::vector<std::string>& ledger() const { return ledger_; }
  // Called at each access to the register, before it is made; throws to make the access fail. An
  // empty one takes it back.
  void faultIs(const std::string& regName, std::function<void()> fault) {
    faults_[regName] = std::move(fault);
  }

 private:
  uint32_t access(const char* verb, const char* regName) {
    const uint32_t address = regFileHelper()->regNameToAddr(regName);
    ledger_.push_back(std::string(verb) + " " + regName);
    const auto fault = faults_.find(regName);
    if (fault != faults_.end() && fault->second) fault->second();
    return address;
  }

  std::map<uint32_t, uint32_t> values_;
  std::vector<std::string> ledger_;
  std::map<std::string, std::function<void()>> faults_;
};

}  // namespace Testing
