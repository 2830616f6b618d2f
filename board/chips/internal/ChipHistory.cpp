#include "board/chips/internal/ChipHistory.h"

#include <chrono>

namespace Board {

using KoruRegFile::AccessCallback;
using KoruRegFile::AccessOutcome;
using KoruRegFile::SeenAccess;
using KoruRegFile::TransportFailure;

namespace {

uint64_t nanoseconds(std::chrono::steady_clock::duration duration) {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count());
}

}  // namespace

ChipHistory::Together::~Together() {
  history_.isTogether_ = false;
  for (const Change& change : history_.waiting_) history_.append(&change, nullptr);
  history_.waiting_.clear();
}

WrittenFor ChipHistory::why() const {
  if (why_ == WrittenFor::request && !acting_->actor) return WrittenFor::program;
  return why_;
}

HistoryEntry ChipHistory::entry() const { return {.actor = acting_->actor, .why = why()}; }

void ChipHistory::append(const Change* change, const Write* write) {
  HistoryEntry entry = this->entry();
  if (change) {
    entry.hasField = true;
    entry.reg = change->field->logicalRegister.view();
    entry.field = change->field->logicalField.view();
    entry.was = change->was;
    entry.value = change->value;
  }
  if (write) {
    entry.hasRegister = true;
    entry.hardware = write->hardware;
    entry.sent = write->sent;
    entry.end = write->end;
    entry.took = write->took;
    entry.reason = write->reason;
    entry.error = write->error;
  }
  put(entry);
}

void ChipHistory::put(const HistoryEntry& entry) {
  if (!acting_->mayWait) return file_.append(entry);
  file_.hold(entry);
  if (!std::exchange(isWaiting_, true)) acting_->waiting.push_back(weak_from_this());
}

void ChipHistory::flush() {
  isWaiting_ = false;
  file_.flush();
}

// One that no field was told of.
void ChipHistory::appendWrite() {
  if (std::exchange(write_.isThere, false)) append(nullptr, &write_);
}

void ChipHistory::close() {
  appendWrite();
  file_.close();
}

// Whether there are fields that were waiting for the register.
bool ChipHistory::appendWaiting(const std::string& hardware) {
  return std::erase_if(waiting_, [&](const Change& change) {
           if (change.field->physicalRegister.view() != hardware) return false;
           append(&change, &write_);
           return true;
         }) != 0;
}

std::vector<ChipHistory::NamedChange> ChipHistory::takeWaiting(std::string_view hardware) {
  std::vector<NamedChange> taken;
  std::erase_if(waiting_, [&](const Change& change) {
    if (change.field->physicalRegister.view() != hardware) return false;
    taken.push_back(
        {change.field->logicalRegister, change.field->logicalField, change.was, change.value});
    return true;
  });
  return taken;
}

void ChipHistory::accessEnded(const SeenAccess& access) {
  ++(access.isWrite ? counts_.writes : counts_.reads);
  if (access.failure) ++counts_.failures;
  const bool isPosted = std::exchange(isPosted_, false);
  if (!isPosted) counts_.took(nanoseconds(access.took));
  if (!access.isWrite) return;
  appendWrite();
  write_.isThere = true;
  write_.hardware.assign(access.reg);
  write_.sent = access.value;
  write_.took = nanoseconds(access.took);
  write_.end = isPosted ? WriteEnd::posted : WriteEnd::done;
  write_.reason.clear();
  write_.error = 0;
  if (access.failure) {
    write_.end = WriteEnd::failed;
    write_.reason = access.failure->reason;
    write_.error = access.failure->error;
  }
  if (isTogether_ && appendWaiting(write_.hardware)) {
    write_.isThere = false;
  } else if (isTogether_ || why_ != WrittenFor::request) {
    appendWrite();
  }
}

void ChipHistory::count(bool isWrite, const AccessOutcome& outcome, Clock::time_point begin) {
  ++(isWrite ? counts_.writes : counts_.reads);
  if (!outcome.isDone()) ++counts_.failures;
  counts_.took(nanoseconds(Clock::now() - begin));
}

AccessCallback ChipHistory::countedRead(AccessCallback callback) {
  return [self = shared_from_this(), begin = Clock::now(),
          callback = std::move(callback)](const AccessOutcome& outcome) {
    self->count(false, outcome, begin);
    callback(outcome);
  };
}

AccessCallback ChipHistory::accessBegins(std::string_view reg, bool isWrite, uint32_t value,
                                         AccessCallback callback) {
  if (!isWrite) return countedRead(std::move(callback));
  appendWrite();
  HistoryEntry entry = this->entry();
  entry.hasRegister = true;
  entry.sent = value;
  auto changes = takeWaiting(reg);
  // What it refers to has to be there when the access ends.
  return [self = shared_from_this(), entry, hasActor = entry.actor != nullptr,
          actor = entry.actor ? *entry.actor : Actor(), hardware = std::string(reg),
          changes = std::move(changes), begin = Clock::now(),
          callback = std::move(callback)](const AccessOutcome& outcome) {
    HistoryEntry ended = entry;
    self->count(true, outcome, begin);
    ended.actor = hasActor ? &actor : nullptr;
    ended.hardware = hardware;
    ended.took = nanoseconds(Clock::now() - begin);
    ended.end = outcome.isDone() ? WriteEnd::done : WriteEnd::failed;
    if (outcome.failure) {
      ended.reason = outcome.failure->reason;
      ended.error = outcome.failure->error;
    }
    if (changes.empty()) self->put(ended);
    for (const NamedChange& change : changes) {
      ended.hasField = true;
      ended.reg = change.reg.view();
      ended.field = change.field.view();
      ended.was = change.was;
      ended.value = change.value;
      self->put(ended);
    }
    callback(outcome);
  };
}

void ChipHistory::postedWriteFailed(std::string_view reg, uint32_t value,
                                    const TransportFailure& failure) {
  ++counts_.failures;
  appendWrite();
  HistoryEntry entry = this->entry();
  entry.hasRegister = true;
  entry.hardware = reg;
  entry.sent = value;
  entry.end = WriteEnd::failed;
  entry.reason = failure.reason;
  entry.error = failure.error;
  put(entry);
}

void ChipHistory::fieldChanged(const Field& field, uint32_t was, uint32_t value) {
  const Change change{&field, was, value};
  if (was != value)
    counts_.lastChange = std::chrono::duration_cast<std::chrono::nanoseconds>(
                             std::chrono::system_clock::now().time_since_epoch())
                             .count();
  if (isTogether_) return waiting_.push_back(change);
  const bool isItsWrite = write_.isThere && write_.hardware == field.physicalRegister.view();
  if (!isItsWrite) appendWrite();
  append(&change, isItsWrite ? &write_ : nullptr);
  if (isItsWrite) write_.isThere = false;
}

}  // namespace Board
