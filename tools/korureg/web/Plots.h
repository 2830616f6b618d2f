#pragma once

// Fields that are read again and again for a page that draws them: each at its own rate, as long as
// somebody asks for what was read. One thread.

#include <chrono>
#include <cstdint>
#include <deque>
#include <list>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "korureg/web/AgentLink.h"
#include "korureg/web/ReadGuard.h"

namespace korureg::web {

struct FieldPlace {
  std::string chip;
  std::string reg;
  std::string field;

  bool operator==(const FieldPlace&) const = default;
};

class Plots {
 public:
  using Json = nlohmann::ordered_json;
  static constexpr std::chrono::milliseconds fastest{50};
  static constexpr std::chrono::milliseconds slowest{3'600'000};

  Plots(AgentLink& link, ReadGuard& guard) : link_(link), guard_(guard) {}

  // What was read behind the point of that number. Reading begins with the first call. Throws
  // UsageError when there are too many fields already.
  Json take(const FieldPlace& place, std::chrono::milliseconds every, uint64_t after);
  // All of it, a line each; empty of a field that is not read.
  std::string csv(const FieldPlace& place) const;
  void forget(const FieldPlace& place);

  void serve(Clock::time_point now);
  Clock::time_point next() const;

 private:
  struct Point {
    int64_t time;  // milliseconds since 1970
    std::optional<uint64_t> value;
    std::optional<double> number;  // in the field's unit
  };
  struct Series {
    FieldPlace place;
    uint64_t id = 0;
    std::chrono::milliseconds every = {};
    std::deque<Point> points = {};
    uint64_t last = 0;  // number of the last point, from 1 on
    std::string why = {};
    bool mayRead = false;
    bool isWaiting = false;  // for the agent
    Clock::time_point due = {};
    Clock::time_point until = {};
  };

  Series* find(const FieldPlace& place);
  Series* find(uint64_t id);
  void begin(Series& series);
  void found(uint64_t id, const Json* answer);
  void checked(uint64_t id, ReadGuard::Says says);
  void sample(Series& series);
  void sampled(uint64_t id, const Json* answer);

  AgentLink& link_;
  ReadGuard& guard_;
  std::list<Series> series_;
  uint64_t lastId_ = 0;
};

}  // namespace korureg::web
