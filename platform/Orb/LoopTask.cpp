#include "Orb/LoopTask.h"

#include <utility>

namespace Orb {

// Shared with the loop's callbacks, so that a step may destroy the task that it belongs to.
struct LoopTask::State {
  State(EventLoop& l, std::function<void()> s) : loop(l), step(std::move(s)) {}

  void run() {
    if (over) return;
    scheduled = false;
    timer.reset();
    step();
  }

  EventLoop& loop;
  const std::function<void()> step;
  std::unique_ptr<EventWatch> timer;
  bool scheduled = false;
  bool over = false;
};

LoopTask::LoopTask(EventLoop& loop, std::function<void()> step)
    : state_(std::make_shared<State>(loop, std::move(step))) {}

LoopTask::~LoopTask() {
  state_->over = true;
  state_->timer.reset();
}

void LoopTask::schedule() {
  if (state_->scheduled) return;
  state_->loop.defer([state = state_] { state->run(); });
  state_->scheduled = true;
}

void LoopTask::scheduleAfter(std::chrono::nanoseconds delay) {
  if (state_->scheduled) return;
  state_->timer = state_->loop.after(delay, [state = state_] { state->run(); });
  state_->scheduled = true;
}

}  // namespace Orb
