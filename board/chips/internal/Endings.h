#pragma once

// The end of several accesses that were asked for together. Used on the framework's thread.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <utility>

#include "KoruRegFile/TransportError.h"
#include "KoruRegFile/TransportMethod.h"

namespace Board {

// Calls `done` when the last of the accesses has ended, with the first failure.
class Endings : public std::enable_shared_from_this<Endings> {
 public:
  explicit Endings(KoruRegFile::AccessCallback done) : done_(std::move(done)) {}

  // A write whose failure raises the transport's flag. One that cannot even begin has ended, too.
  void write(const Orb::Ptr<KoruRegFile::TransportMethod>& transport, const Orb::String& reg,
             uint32_t value) {
    ++pending_;
    try {
      transport->regWriteOutcome(
          reg, value,
          [endings = shared_from_this(), transport](const KoruRegFile::AccessOutcome& outcome) {
            if (!outcome.isDone()) {
              endings->attempt([&] { transport->accessFailed(*outcome.failure); });
            }
            endings->ended(outcome);
          });
    } catch (const std::exception& e) {
      ended({.failure = KoruRegFile::TransportFailure::of(e)});
    }
  }
  // A step that may call reactors; what they throw is no reason to leave out the rest.
  template <class Step>
  void attempt(const Step& step) {
    try {
      step();
    } catch (const std::exception& e) {
      note({.failure = KoruRegFile::TransportFailure::of(e)});
    }
  }
  // There will be no more.
  void close() { ended({}); }

 private:
  void note(const KoruRegFile::AccessOutcome& outcome) {
    if (outcome_.isDone()) outcome_ = outcome;
  }
  void ended(const KoruRegFile::AccessOutcome& outcome) {
    note(outcome);
    if (--pending_ == 0) done_(outcome_);
  }

  const KoruRegFile::AccessCallback done_;
  size_t pending_ = 1;  // one for the call that makes them
  KoruRegFile::AccessOutcome outcome_;
};

}  // namespace Board
