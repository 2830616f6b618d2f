#include "board/devices/BusRecorder.h"

#include <utility>

namespace Board {

using Clock = std::chrono::steady_clock;

BusRecorder::Access::Access(std::shared_ptr<BusRecorder> recorder, std::string_view reg,
                            bool isWrite, uint32_t value)
    : recorder_(std::move(recorder)),
      ticket_(recorder_->firstTicket_ + recorder_->places_.size()),
      access_{std::string(reg), isWrite, value, std::nullopt, Clock::now(), {}} {
  recorder_->places_.emplace_back();
}

BusRecorder::Access::~Access() {
  if (hasEnded_) return;
  access_.failure = KoruRegFile::TransportFailure{.reason = "its end was not seen"};
  end(true);
}

void BusRecorder::Access::ended(const KoruRegFile::AccessOutcome& outcome) {
  if (hasEnded_) return;
  if (!access_.isWrite) access_.value = outcome.value;
  access_.failure = outcome.failure;
  end(true);
}

void BusRecorder::Access::withdraw() {
  if (!hasEnded_) end(false);
}

void BusRecorder::Access::end(bool isTold) {
  hasEnded_ = true;
  access_.took = Clock::now() - access_.begin;
  Place& place = recorder_->places_[static_cast<size_t>(ticket_ - recorder_->firstTicket_)];
  place.hasEnded = true;
  if (isTold) place.access = std::move(access_);
  recorder_->tellEnded();
}

void BusRecorder::tellEnded() {
  while (!places_.empty() && places_.front().hasEnded) {
    const Place place = std::move(places_.front());
    places_.pop_front();
    ++firstTicket_;
    if (place.access && isWanted_) tell_(*place.access, nextNumber_++);
  }
}

}  // namespace Board
