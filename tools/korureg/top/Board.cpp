#include "korureg/top/Board.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace korureg::top {

namespace {

constexpr std::chrono::seconds span(5);       // that a rate is of
constexpr size_t mostWritesRemembered = 1e5;  // of a chip
constexpr size_t mostEvents = 2000;           // that are taken in before the keys are looked at

}  // namespace

Board::Board(Connect connect) : connect_(std::move(connect)), source_(connect_()) {
  chips_ = source_->chips();
}

const Chip* Board::chip(const std::string& name) const {
  const auto found = std::find_if(chips_.begin(), chips_.end(),
                                  [&](const Chip& chip) { return chip.name == name; });
  return found == chips_.end() ? nullptr : &*found;
}

double Board::rate(const std::string& chip, Clock::time_point now) const {
  const auto found = writes_.find(chip);
  if (found == writes_.end()) return 0;
  const auto first = std::lower_bound(found->second.begin(), found->second.end(), now - span);
  return static_cast<double>(found->second.end() - first) / static_cast<double>(span.count());
}

// Whatever fails, the view goes on; after a failure that is none of the request the source takes no
// more of them.
template <class Ask>
bool Board::guarded(Ask ask) {
  if (!source_) return message_ = "there is no agent to be asked", false;
  try {
    ask();
    return true;
  } catch (const UsageError& e) {
    message_ = e.what();
  } catch (const Refusal& e) {
    message_ = e.what();
  } catch (const Failure& e) {
    message_ = e.what();
    source_.reset();
  }
  return false;
}

void Board::open(const std::string& chip) {
  opened_ = chip;
  detail_ = {};
  if (!chip.empty()) guarded([&] { detail_ = source_->detail(chip); });
}

void Board::takeIn(const Event& event, Clock::time_point now) {
  if (event.what == Event::What::trouble) message_ = event.text;
  if (event.what == Event::What::field) {
    auto& writes = writes_[event.chip];
    writes.push_back(now);
    if (writes.size() > mostWritesRemembered) writes.pop_front();
  } else {
    areChipsStale_ = true;
  }
  if (event.chip == opened_) isDetailStale_ = true;
}

bool Board::hear(Clock::time_point now) {
  isFlooded_ = false;
  if (source_) {
    guarded([&] {
      size_t count = 0;
      for (; count < mostEvents; ++count) {
        const auto event = source_->event();
        if (!event) break;
        takeIn(*event, now);
      }
      isFlooded_ = count == mostEvents;
    });
  }
  for (auto entry = writes_.begin(); entry != writes_.end();) {
    auto& writes = entry->second;
    while (!writes.empty() && now - writes.front() > span) writes.pop_front();
    entry = writes.empty() ? writes_.erase(entry) : std::next(entry);
  }
  return areChipsStale_ || isDetailStale_ || !source_;
}

void Board::connectAgain() {
  try {
    source_ = connect_();
    message_ = "the agent is there again";
    areChipsStale_ = isDetailStale_ = true;
  } catch (const std::exception& e) {
    message_ = e.what();
  }
}

void Board::refresh() {
  if (!source_) connectAgain();
  if (source_) guarded([&] { reload(); });
}

void Board::reload() {
  if (std::exchange(areChipsStale_, false)) chips_ = source_->chips();
  if (!std::exchange(isDetailStale_, false) || opened_.empty()) return;
  Detail now = source_->detail(opened_);
  std::map<std::string, const Register*> known;
  for (const Register& reg : detail_.registers) known[reg.name] = &reg;
  for (Register& reg : now.registers) {
    const auto before = known.find(reg.name);
    // What was read before somebody wrote to it is no more.
    if (before == known.end() || before->second->written != reg.written) continue;
    reg.read = before->second->read;
    reg.failure = before->second->failure;
  }
  detail_ = std::move(now);
}

void Board::readBack(const std::string& name) {
  const auto found = std::find_if(detail_.registers.begin(), detail_.registers.end(),
                                  [&](const Register& reg) { return reg.name == name; });
  if (found != detail_.registers.end()) readBack(*found);
}

void Board::readBack(Register& reg) {
  reg.read.reset();
  reg.failure.clear();
  if (!guarded([&] { reg.read = source_->read(opened_, reg); })) reg.failure = message_;
}

void Board::readAll() {
  for (Register& reg : detail_.registers) {
    if (reg.readable && !reg.readChanges && source_) readBack(reg);
  }
}

std::optional<std::vector<std::string>> Board::plan(const AgentField& field,
                                                    const std::string& text) {
  std::vector<std::string> lines;
  if (!guarded([&] { lines = source_->plan(opened_, field, text); })) return {};
  return lines;
}

void Board::write(const AgentField& field, const std::string& text) {
  const bool isDone = guarded([&] { source_->write(opened_, field, text); });
  if (isDone) message_ = field.name() + " was written";
  isDetailStale_ = true;
}

}  // namespace korureg::top
