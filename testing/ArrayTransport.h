#pragma once

// The fastest transport there can be: an array, indexed by address. For measuring what the library
// costs above it.

#include <cstdint>
#include <vector>

#include "KoruRegFile/BaseTransportMethodImpl.h"

namespace Testing {

class ArrayTransport : public KoruRegFile::BaseTransportMethodImpl {
 public:
  // Addresses run from 0 to `size` - 1, one for each register number.
  ArrayTransport(const char* csvPath, size_t size)
      : BaseTransportMethodImpl(csvPath, 1, nullptr), values_(size) {}

  uint32_t regRead(const char* regName) override {
    return values_[regFileHelper()->regNameToAddr(regName)];
  }
  void regWrite(const char* regName, uint32_t value) override {
    values_[regFileHelper()->regNameToAddr(regName)] = value;
  }

 private:
  std::vector<uint32_t> values_;
};

}  // namespace Testing
