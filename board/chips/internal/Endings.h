#pragma once

// The end of several accesses that were asked for together. Used on the framework's thread.

#include <cstddef>
#include <exception>
#include <utility>

#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "KoruRegFile/TransportError.h"

namespace Board {

// Calls `done` when the last of the accesses has ended, with the first failure.
class Endings {
 public:
  explicit Endings(KoruRegFile::AccessCallback done) : done_(std::move(done)) {}
  void begun() { ++pending_; }
  void ended(const KoruRegFile::AccessOutcome& outcome) {
    note(outcome);
    if (--pending_ == 0) done_(outcome_);
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

 private:
  void note(const KoruRegFile::AccessOutcome& outcome) {
    if (outcome_.isDone()) outcome_ = outcome;
  }

  const KoruRegFile::AccessCallback done_;
  size_t pending_ = 1;  // one for the call that makes them
  KoruRegFile::AccessOutcome outcome_;
};

}  // namespace Board
