#include "korureg/HistoryJson.h"

#include <chrono>
#include <nlohmann/json.hpp>

#include "korureg/Output.h"

namespace korureg {

std::string timeOf(const Board::HistoryRecord& record) {
  const auto since = std::chrono::nanoseconds(record.wallTime);
  return timeText(std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(since)));
}

nlohmann::ordered_json historyJson(const std::string& chip, const Board::HistoryRecord& record,
                                   uint64_t lost) {
  nlohmann::ordered_json json = {{"time", timeOf(record)},
                                 {"wall_ns", record.wallTime},
                                 {"monotonic_ns", record.monotonicTime},
                                 {"chip", chip},
                                 {"sequence", record.sequence}};
  if (lost != 0) json["lost"] = lost;
  if (record.hasField) {
    json.update({{"register", record.reg},
                 {"field", record.field},
                 {"was", record.was},
                 {"value", record.value}});
  }
  if (record.hasRegister) {
    json.update({{"hardware", record.hardware}, {"sent", record.sent}, {"took_ns", record.took}});
  }
  json["outcome"] = Board::textOf(record.end);
  if (!record.reason.empty()) json["reason"] = record.reason;
  if (record.error != 0) json["errno"] = record.error;
  json["why"] = Board::textOf(record.why);
  if (record.hasActor) {
    json["by"] = {
        {"uid", record.actor.uid}, {"pid", record.actor.pid}, {"process", record.actor.process}};
  }
  if (record.isCut) json["cut"] = true;
  return json;
}

}  // namespace korureg
