#pragma once

// The transports whose writes end later than they are made, as the agent uses them: a plain write
// is posted, and one that fails raises the error flag then. Writes keep their order. They are
// counted while they are in flight, so that somebody can mark the chip as long as nobody knows
// whether its registers hold what was written. Used on the framework's thread.
//
// A callback is always called: from the loop, with a failure, when the transport goes before.

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "KoruRegFile/I2cTransportRelayImpl.h"
#include "KoruRegFile/SpiTransportMethodImpl.h"
#include "KoruRegFile/TransportDescriptor.h"
#include "KoruRegFile/TransportMethod.h"
#include "Orb/Counter.h"

namespace Agent {

// What both of them have in common.
class PostedWrites {
 public:
  virtual ~PostedWrites();
  PostedWrites(const PostedWrites&) = delete;
  PostedWrites& operator=(const PostedWrites&) = delete;

  size_t inFlight() const { return inFlight_; }
  // Called when the count has changed: before a write is posted, and after the error flag has told
  // of one that failed. Must not throw.
  void observerIs(std::function<void()> observer) { observer_ = std::move(observer); }
  // What went wrong last; empty as long as nothing has.
  virtual std::string lastFailure() const = 0;

  // A plain write that comes while so many are in flight fails at once: a bus that stands still
  // does not fill the memory.
  static constexpr size_t mostInFlight = 1024;

 protected:
  class Answer;
  using Write = std::shared_ptr<Answer>;

  // The method, which raises the flag, owns this.
  explicit PostedWrites(KoruRegFile::TransportMethod& method);

  // Without a callback it is a plain write.
  Write begin(const char* regName, KoruRegFile::RegWriteCallback callback);
  // May destroy the transport, but not `write`.
  void end(const Write& write, KoruRegFile::RegCallbackStatus status);
  // It never came to be posted; somebody else tells of that.
  void withdraw(const Write& write);

 private:
  void ended();

  KoruRegFile::TransportMethod& method_;
  std::function<void()> observer_;
  size_t inFlight_ = 0;
  Orb::Counter posted_;
  Orb::Counter finished_;
};

class PostingRelay : public KoruRegFile::I2cTransportRelayImpl, public PostedWrites {
 public:
  PostingRelay(KoruRegFile::TransportMethod& method,
               const KoruRegFile::I2cRelayTransportDescriptor& descriptor, const char* csvPath);
  ~PostingRelay() override;

  void regWrite(const char* regName, uint32_t value) override;
  void regReadWithCallback(const char* regName, KoruRegFile::RegReadCallback callback) override;
  void regWriteWithCallback(const char* regName, uint32_t value,
                            KoruRegFile::RegWriteCallback callback) override;
  std::string lastFailure() const override;
};

// Knows from the device's status how writes end.
class PostingSpi : public KoruRegFile::SpiTransportMethodImpl, public PostedWrites {
 public:
  PostingSpi(KoruRegFile::TransportMethod& method,
             const KoruRegFile::SpiTransportDescriptor& descriptor, const char* csvPath);
  ~PostingSpi() override;

  void regWrite(const char* regName, uint32_t value) override;
  void regWriteWithCallback(const char* regName, uint32_t value,
                            KoruRegFile::RegWriteCallback callback) override;
  std::string lastFailure() const override;

 private:
  struct StatusObserver;
  void onEnd(KoruRegFile::RegCallbackStatus status);

  std::deque<Write> writes_;  // in the order in which they are sent
  bool isPosting_ = false;
  std::unique_ptr<StatusObserver> statusObserver_;
};

}  // namespace Agent
