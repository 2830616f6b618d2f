#pragma once

// What "korureg top" knows of the board at this moment: its chips, and the registers and fields of
// the one that is open. Knows of no screen. One thread.

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "korureg/top/Source.h"

namespace korureg::top {

class Board {
 public:
  using Clock = std::chrono::steady_clock;
  using Connect = std::function<std::unique_ptr<Source>()>;

  // Throws what `connect` throws; later on, a source that is lost is asked for again.
  explicit Board(Connect connect);

  const std::vector<Chip>& chips() const { return chips_; }
  // Null when it is not there.
  const Chip* chip(const std::string& name) const;
  // Field writes a second that were heard of lately.
  double rate(const std::string& chip, Clock::time_point now) const;
  // Whether any rate is going to change by itself.
  bool isFading() const { return !writes_.empty(); }

  // One chip, or none: "".
  void open(const std::string& chip);
  const std::string& opened() const { return opened_; }
  const Detail& detail() const { return detail_; }

  // Negative while there is no source.
  int descriptor() const { return source_ ? source_->descriptor() : -1; }
  bool isConnected() const { return source_ != nullptr; }
  // Takes in what has happened; says whether refresh() is due. Of very much it leaves some for the
  // next time.
  bool hear(Clock::time_point now);
  bool isFlooded() const { return isFlooded_; }
  // Asks again for what may have changed, and for a source that was lost.
  void refresh();

  // What went wrong last, or is worth knowing; empties it.
  std::string takeMessage() { return std::exchange(message_, {}); }

  // Reads the register of the open chip from the hardware, if it is there.
  void readBack(const std::string& reg);
  // All of them whose reading changes nothing.
  void readAll();
  // Nothing when that cannot be, which the message says.
  std::optional<std::vector<std::string>> plan(const AgentField& field, const std::string& text);
  void write(const AgentField& field, const std::string& text);

 private:
  template <class Ask>
  bool guarded(Ask ask);
  void readBack(Register& reg);
  void connectAgain();
  void reload();
  void takeIn(const Event& event, Clock::time_point now);

  const Connect connect_;
  std::unique_ptr<Source> source_;
  std::vector<Chip> chips_;
  std::map<std::string, std::deque<Clock::time_point>> writes_;  // by chip
  std::string opened_;
  Detail detail_;
  std::string message_;
  bool areChipsStale_ = false;
  bool isDetailStale_ = false;
  bool isFlooded_ = false;
};

}  // namespace korureg::top
