#pragma once

// Records the traces of one category for as long as it lives, so that a test can say which messages
// were written and that there were no others. The latest one records, in a single-threaded test.
//
//     Testing::RecordedTraces traces("Register", 8);
//     ...
//     EXPECT_THAT(traces.texts(), ElementsAre("Unknown register type 'x'"));

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Orb/Trace.h"

namespace Testing {

struct TraceMessage {
  std::string category;
  int level;
  std::string text;
};

// Opens `category` up to `level` and takes the place of the sink until the end of the scope.
class RecordedTraces {
 public:
  RecordedTraces(std::string category, int level) : category_(std::move(category)) {
    Orb::traceLevelIs(category_, level);
    previous_ = Orb::traceSinkIs(sink_);
  }
  ~RecordedTraces() {
    Orb::traceSinkIs(previous_);
    Orb::traceLevelIs(category_, 0);
  }
  RecordedTraces(const RecordedTraces&) = delete;
  RecordedTraces& operator=(const RecordedTraces&) = delete;

  const std::vector<TraceMessage>& messages() const { return sink_->messages; }
  // Of one category, or of all that are open.
  std::vector<std::string> texts(std::string_view category = {}) const {
    std::vector<std::string> result;
    for (const TraceMessage& message : messages()) {
      if (category.empty() || message.category == category) result.push_back(message.text);
    }
    return result;
  }

 private:
  struct Sink : Orb::TraceSink {
    void message(std::string_view category, int level, std::string_view text) override {
      messages.push_back({std::string(category), level, std::string(text)});
    }
    std::vector<TraceMessage> messages;
  };

  const std::string category_;
  const std::shared_ptr<Sink> sink_ = std::make_shared<Sink>();
  std::shared_ptr<Orb::TraceSink> previous_;
};

}  // namespace Testing
