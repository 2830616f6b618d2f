#pragma once

// What is told to one browser as it happens, as server-sent events: what it has not read yet waits
// here, up to a limit, and what does not fit is gone, of which it is told. One thread.

#include <sys/types.h>

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace korureg::web {

class Stream {
 public:
  using Message = std::shared_ptr<const std::string>;
  static constexpr size_t most = 256 * 1024;  // bytes that wait

  // Said in the place of all that did not fit.
  explicit Stream(Message instead) : instead_(std::move(instead)) {}

  void say(Message message);
  // What is to be sent next, 0 bytes when there is nothing.
  size_t take(char* to, size_t room);

  // Called when there is something to be taken again.
  std::function<void()> wake = nullptr;

 private:
  const Message instead_;
  std::deque<Message> waiting_;
  size_t bytes_ = 0;
  size_t taken_ = 0;  // of the first one
};

inline void Stream::say(Message message) {
  if (bytes_ + message->size() > most) {
    // What has been begun is sent to its end.
    const size_t kept = taken_ != 0 ? 1 : 0;
    waiting_.resize(kept);
    bytes_ = kept == 0 ? 0 : waiting_.front()->size();
    message = instead_;
  }
  bytes_ += message->size();
  waiting_.push_back(std::move(message));
  if (wake) wake();
}

inline size_t Stream::take(char* to, size_t room) {
  size_t count = 0;
  while (count < room && !waiting_.empty()) {
    const std::string& first = *waiting_.front();
    const size_t piece = first.copy(to + count, room - count, taken_);
    count += piece;
    taken_ += piece;
    if (taken_ < first.size()) break;
    bytes_ -= first.size();
    taken_ = 0;
    waiting_.pop_front();
  }
  return count;
}

}  // namespace korureg::web
