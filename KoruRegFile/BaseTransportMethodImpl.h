#pragma once

// The interface of every transport implementation: registers are read and written by name, at once
// or with a callback. An implementation is owned by its TransportMethod and used on one thread.

#include <cstdint>
#include <functional>
#include <optional>

#include "KoruRegFile/Export.h"
#include "KoruRegFile/RegisterFileHelper.h"
#include "KoruRegFile/TransportError.h"

namespace KoruRegFile {

// How an access with a callback ended.
enum class RegCallbackStatus : uint8_t { done = 1, failed = 2 };

// The value of a read that failed.
inline constexpr uint32_t failedReadValue = 0xFFFFFFFF;

// `regName` is valid during the call only.
using RegReadCallback =
    std::function<void(const char* regName, RegCallbackStatus status, uint32_t value)>;
using RegWriteCallback = std::function<void(const char* regName, RegCallbackStatus status)>;

// How an access ended, with the reason of a failure.
struct AccessOutcome {
  uint32_t value = failedReadValue;  // of a read that is done; the value that was written
  std::optional<TransportFailure> failure = std::nullopt;  // none when it is done

  bool isDone() const { return !failure.has_value(); }
};
using AccessCallback = std::function<void(const AccessOutcome& outcome)>;

class KORU_EXPORT BaseTransportMethodImpl {
 public:
  BaseTransportMethodImpl(const BaseTransportMethodImpl&) = delete;
  BaseTransportMethodImpl& operator=(const BaseTransportMethodImpl&) = delete;
  virtual ~BaseTransportMethodImpl();

  // Throw std::runtime_error for an unknown register or a failed access, and
  // Keel::GenericSigbusHandler::SigbusException for a bus error.
  virtual uint32_t regRead(const char* regName) = 0;
  virtual void regWrite(const char* regName, uint32_t value) = 0;

  // Access the register and then call back with `done`; here both happens before they return. A
  // failed access throws, and the callback is not called. Without a callback nothing is read, but a
  // write is still made.
  virtual void regReadWithCallback(const char* regName, RegReadCallback callback);
  virtual void regWriteWithCallback(const char* regName, uint32_t value, RegWriteCallback callback);

  // Access the register and tell how that ended: at once, or later, from the event loop, when what
  // was written has reached the device. What fails at once throws, and the callback is not called;
  // nor is it when the transport is destroyed before. The callback, which must not be empty, may
  // destroy the transport. Here they rest on the operations above, whose callbacks tell no reason.
  virtual void regReadWithOutcome(const char* regName, AccessCallback callback);
  virtual void regWriteWithOutcome(const char* regName, uint32_t value, AccessCallback callback);

  // regRead() and regWrite() of a register that was found in this transport's map before: by its
  // name, unless an implementation can save the look-up.
  virtual uint32_t foundRegRead(const Hardware::KoruRegFile::HardwareRegister& reg);
  virtual void foundRegWrite(const Hardware::KoruRegFile::HardwareRegister& reg, uint32_t value);

  // Reads every register and lists name and value on standard error.
  void dumpAll();

  const Orb::Ptr<RegFileHelper>& regFileHelper() const { return regFileHelper_; }

 protected:
  // Takes the register map from the file at `csvPath`, or from the model when the path is empty. A
  // register's number in the file, times `addrBlockSize`, is its address. Throws what
  // RegFileHelper::init() throws.
  BaseTransportMethodImpl(const char* csvPath, uint8_t addrBlockSize,
                          const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile);
  // Shares the map of another transport, over which this one is made.
  explicit BaseTransportMethodImpl(const Orb::Ptr<RegFileHelper>& regFileHelper);

 private:
  const Orb::Ptr<RegFileHelper> regFileHelper_;
};

}  // namespace KoruRegFile
