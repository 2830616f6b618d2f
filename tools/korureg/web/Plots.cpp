#include "korureg/web/Plots.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "korureg/AgentAnswer.h"
#include "korureg/Command.h"

namespace korureg::web {

namespace {

constexpr size_t mostSeries = 8;
constexpr size_t mostPoints = 20'000;
constexpr size_t mostInAnswer = 2'000;
// A page in the background asks seldom.
constexpr std::chrono::minutes interest(5);

int64_t now1970() {
  const auto since = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(since).count();
}

// The register of the hardware that the field lies in.
std::string hardwareOf(const Plots::Json* answer, const std::string& field) {
  if (!answer || !flagAt(*answer, "ok")) return "";
  for (const auto& each : listAt(*answer, "result")) {
    if (textAt(each, "field") == field) return textAt(each, "hw_register");
  }
  return "";
}

}  // namespace

Plots::Series* Plots::find(const FieldPlace& place) {
  const auto found = std::find_if(series_.begin(), series_.end(),
                                  [&](const Series& each) { return each.place == place; });
  return found == series_.end() ? nullptr : &*found;
}

Plots::Series* Plots::find(uint64_t id) {
  const auto found = std::find_if(series_.begin(), series_.end(),
                                  [&](const Series& each) { return each.id == id; });
  return found == series_.end() ? nullptr : &*found;
}

Plots::Json Plots::take(const FieldPlace& place, std::chrono::milliseconds every, uint64_t after) {
  Series* series = find(place);
  if (!series) {
    if (series_.size() == mostSeries) {
      throw UsageError(fmt::format("{} fields are read already; end one of them", mostSeries));
    }
    series = &series_.emplace_back(Series{.place = place, .id = ++lastId_});
    begin(*series);
  }
  series->every = std::clamp(every, fastest, slowest);
  series->due = std::min(series->due, Clock::now() + series->every);
  series->until = Clock::now() + interest;
  const uint64_t first = series->last - series->points.size();  // before those that are there
  Json points = Json::array();
  uint64_t number = std::clamp(after, first, series->last);
  while (number < series->last && points.size() < mostInAnswer) {
    const Point& point = series->points[number++ - first];
    points.push_back({point.time, point.value ? Json(*point.value) : Json(),
                      point.number ? Json(*point.number) : Json()});
  }
  return {{"points", std::move(points)}, {"last", number}, {"why", series->why}};
}

std::string Plots::csv(const FieldPlace& place) const {
  const Series* const series = const_cast<Plots*>(this)->find(place);
  if (!series) return "";
  std::string text = "time_ms,raw,number\n";
  for (const Point& point : series->points) {
    fmt::format_to(std::back_inserter(text), "{},{},{}\n", point.time,
                   point.value ? fmt::format("{}", *point.value) : "",
                   point.number ? fmt::format("{}", *point.number) : "");
  }
  return text;
}

void Plots::forget(const FieldPlace& place) {
  series_.remove_if([&](const Series& each) { return each.place == place; });
}

void Plots::begin(Series& series) {
  series.isWaiting = true;
  const auto& [chip, reg, field] = series.place;
  link_.ask({{"op", "field.list"}, {"chip", chip}, {"register", reg}},
            [this, id = series.id](const Json* answer, const std::string&) { found(id, answer); });
}

void Plots::found(uint64_t id, const Json* answer) {
  Series* const series = find(id);
  if (!series) return;
  const std::string hardware = hardwareOf(answer, series->place.field);
  if (hardware.empty()) return checked(id, ReadGuard::Says::cannotKnow);
  guard_.check(series->place.chip, hardware,
               [this, id](ReadGuard::Says says) { checked(id, says); });
}

void Plots::checked(uint64_t id, ReadGuard::Says says) {
  Series* const series = find(id);
  if (!series) return;
  series->isWaiting = false;
  series->due = Clock::now();
  series->mayRead = says == ReadGuard::Says::mayRead;
  series->why = says == ReadGuard::Says::changesTheChip ? "reading it changes the chip"
                : series->mayRead                       ? ""
                                                        : "the field cannot be found at present";
}

void Plots::sample(Series& series) {
  // Where it lies is looked for again, when that was not found.
  if (!series.mayRead) return begin(series);
  series.isWaiting = true;
  const auto& [chip, reg, field] = series.place;
  link_.ask(
      {{"op", "field.read"}, {"chip", chip}, {"register", reg}, {"field", field}, {"live", true}},
      [this, id = series.id](const Json* answer, const std::string&) { sampled(id, answer); });
}

void Plots::sampled(uint64_t id, const Json* answer) {
  Series* const series = find(id);
  if (!series) return;
  series->isWaiting = false;
  Point point = {.time = now1970(), .value = {}, .number = {}};
  series->why.clear();
  if (answer && flagAt(*answer, "ok")) {
    const Json result = answer->value("result", Json::object());
    point.value = numberAt(result, "value");
    const auto number = result.find("number");
    if (number != result.end() && number->is_number()) point.number = number->get<double>();
  } else {
    // It may have come to lie elsewhere.
    series->mayRead = false;
    series->why = answer ? textAt(answer->value("error", Json::object()), "message")
                         : "there is no agent to be asked";
  }
  series->points.push_back(point);
  ++series->last;
  if (series->points.size() > mostPoints) series->points.pop_front();
}

void Plots::serve(Clock::time_point now) {
  series_.remove_if([&](const Series& each) { return each.until <= now; });
  for (Series& series : series_) {
    if (series.due > now) continue;
    series.due = now + series.every;
    // (What is slower than that is asked when it has answered.)
    if (!series.isWaiting) sample(series);
  }
}

Clock::time_point Plots::next() const {
  Clock::time_point due = never;
  for (const Series& series : series_) due = std::min({due, series.due, series.until});
  return due;
}

}  // namespace korureg::web
