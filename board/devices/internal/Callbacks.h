#pragma once

// Callbacks of the transport interface as the outcomes that queued transports tell.

#include <utility>

#include "KoruRegFile/BaseTransportMethodImpl.h"

namespace Board {

inline KoruRegFile::RegCallbackStatus statusOf(const KoruRegFile::AccessOutcome& outcome) {
  return outcome.isDone() ? KoruRegFile::RegCallbackStatus::done
                          : KoruRegFile::RegCallbackStatus::failed;
}

// The callback is not empty.
inline KoruRegFile::AccessCallback outcomeOf(const char* regName,
                                             KoruRegFile::RegReadCallback callback) {
  return [name = Orb::String(regName),
          callback = std::move(callback)](const KoruRegFile::AccessOutcome& outcome) {
    callback(name.c_str(), statusOf(outcome), outcome.value);
  };
}

inline KoruRegFile::AccessCallback outcomeOf(const char* regName,
                                             KoruRegFile::RegWriteCallback callback) {
  return [name = Orb::String(regName),
          callback = std::move(callback)](const KoruRegFile::AccessOutcome& outcome) {
    callback(name.c_str(), statusOf(outcome));
  };
}

}  // namespace Board
