#include "korureg/web/Feed.h"

#include <algorithm>
#include <utility>

namespace korureg::web {

namespace {

using Json = Feed::Json;

constexpr size_t mostStreams = 16;
constexpr size_t mostTroubles = 50;
constexpr std::chrono::milliseconds moment(200);
// What is said in between finds those that have gone.
constexpr std::chrono::seconds betweenBeats(5);

Stream::Message messageOf(const Json& json) {
  const std::string text = json.dump(-1, ' ', false, Json::error_handler_t::replace);
  return std::make_shared<const std::string>("data: " + text + "\n\n");
}

std::string textIn(const Json& json, const char* key) {
  const auto found = json.find(key);
  return found != json.end() && found->is_string() ? found->get<std::string>() : "";
}

}  // namespace

std::shared_ptr<Stream> Feed::join(const Json& state, Clock::time_point now) {
  dropGone();
  if (streams_.size() == mostStreams) return nullptr;
  static const Stream::Message missed = messageOf({{"missed", true}});
  auto stream = std::make_shared<Stream>(missed);
  stream->say(messageOf(state));
  streams_.push_back(stream);
  beat_ = std::min(beat_, now + betweenBeats);
  return stream;
}

void Feed::tell(const Stream::Message& message) {
  for (const auto& each : streams_) {
    if (const auto stream = each.lock()) stream->say(message);
  }
}

void Feed::say(const Json& state) { tell(messageOf(state)); }

void Feed::hear(const Json& event, Clock::time_point now) {
  const std::string kind = textIn(event, "event");
  if (kind == "field") {
    ++writes_[textIn(event, "chip")];
  } else if (kind == "chip") {
    const auto chip = event.find("chip");
    if (chip == event.end() || !chip->is_object()) return;
    chips_[textIn(*chip, "name")] = *chip;
  } else if (troubles_.size() < mostTroubles) {
    troubles_.push_back(event);
  }
  due_ = std::min(due_, now + moment);
}

void Feed::dropGone() {
  std::erase_if(streams_, [](const auto& each) { return each.expired(); });
}

void Feed::serve(Clock::time_point now) {
  dropGone();
  if (due_ <= now) {
    due_ = never;
    Json news = {{"writes", std::exchange(writes_, {})}};
    news["chips"] = Json::array();
    for (auto& [name, chip] : std::exchange(chips_, {})) news["chips"].push_back(std::move(chip));
    news["troubles"] = std::exchange(troubles_, Json::array());
    tell(messageOf(news));
  }
  if (beat_ <= now) {
    static const auto beat = std::make_shared<const std::string>(":\n\n");
    tell(beat);
    beat_ = isHeard() ? now + betweenBeats : never;
  }
}

Clock::time_point Feed::next() const { return std::min(due_, beat_); }

}  // namespace korureg::web
