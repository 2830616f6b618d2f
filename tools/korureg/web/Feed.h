#pragma once

// What happens on the board, told to the pages that listen: what comes within a moment is told
// together, so that a flood of writes is no flood of messages. One thread.

#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "korureg/web/Clock.h"
#include "korureg/web/Stream.h"

namespace korureg::web {

class Feed {
 public:
  using Json = nlohmann::ordered_json;

  // Another page, which is told first how things are; null when there are too many.
  std::shared_ptr<Stream> join(const Json& state, Clock::time_point now);
  bool isHeard() const { return !streams_.empty(); }

  // At once, to all.
  void say(const Json& state);
  // An event of the agent, soon.
  void hear(const Json& event, Clock::time_point now);

  void serve(Clock::time_point now);
  Clock::time_point next() const;

 private:
  void dropGone();
  void tell(const Stream::Message& message);

  std::vector<std::weak_ptr<Stream>> streams_;
  std::map<std::string, uint64_t> writes_;  // of fields, by chip
  std::map<std::string, Json> chips_;       // as they are now
  Json troubles_ = Json::array();
  Clock::time_point due_ = never;
  Clock::time_point beat_ = never;
};

}  // namespace korureg::web
