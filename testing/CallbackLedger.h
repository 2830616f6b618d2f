#pragma once

// Callbacks that write down what they are told: the register, the status as a number, and of a read
// the value ("gain 1 0x5").

#include <fmt/format.h>

#include <string>
#include <vector>

#include "KoruRegFile/BaseTransportMethodImpl.h"

namespace Testing {

struct CallbackLedger {
  using Status = KoruRegFile::RegCallbackStatus;

  std::vector<std::string> calls;
  const KoruRegFile::RegReadCallback onRead = [this](const char* reg, Status status, uint32_t v) {
    calls.push_back(fmt::format("{} {} {:#x}", reg, static_cast<int>(status), v));
  };
  const KoruRegFile::RegWriteCallback onWrite = [this](const char* reg, Status status) {
    calls.push_back(fmt::format("{} {}", reg, static_cast<int>(status)));
  };
};

}  // namespace Testing
