#pragma once

// Hears of every access that goes through a TransportMethod: for whoever keeps a history of a chip,
// or counts. Called on the framework's thread, from inside of the access; what it throws, or how
// long it takes, is felt by whoever accesses the register, so it does neither.

#include <chrono>
#include <cstdint>
#include <string_view>

#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "KoruRegFile/Export.h"
#include "KoruRegFile/TransportError.h"

namespace KoruRegFile {

// An access that has ended. The names are valid during the call only.
struct SeenAccess {
  std::string_view reg;
  bool isWrite;
  uint32_t value;                   // that was read or written
  const TransportFailure* failure;  // null when it is done
  std::chrono::steady_clock::duration took;
};

class KORU_EXPORT AccessObserver {
 public:
  virtual ~AccessObserver();

  // An access without a callback has ended, or its transport has taken it.
  virtual void accessEnded(const SeenAccess& access) = 0;
  // An access begins that may end later: what is returned is called in the place of `callback`, and
  // calls that.
  virtual AccessCallback accessBegins(std::string_view reg, bool isWrite, uint32_t value,
                                      AccessCallback callback) = 0;
  // An access found the bus busy, and is made once more.
  virtual void accessIsRetried() {}
  // The transport has taken the write that is under way, and carries it out later; and one of those
  // has failed since.
  virtual void writeIsPosted() {}
  virtual void postedWriteFailed(std::string_view /*reg*/, uint32_t /*value*/,
                                 const TransportFailure& /*failure*/) {}
};

}  // namespace KoruRegFile
