#include "korureg/web/Site.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <iterator>

#include "Shoal/StatePath.h"
#include "board/chips/History.h"
#include "board/service/JsonText.h"
#include "korureg/AgentAnswer.h"
#include "korureg/HistoryJson.h"
#include "korureg/web/Page.h"

namespace korureg::web {

namespace {

using Json = nlohmann::ordered_json;

constexpr uint64_t mostInList = 1000;
constexpr uint64_t mostRecords = 500;
constexpr uintmax_t largestHistory = 16 << 20;  // that is read while others wait
constexpr std::chrono::seconds betweenLooks(1);

// What changes nothing, and what of a request is passed on.
constexpr std::array looks = {"chip.list", "chip.registers", "field.list", "hw.list"};
constexpr std::array keys = {"op", "chip", "register", "fields", "from", "limit", "dry_run"};

Reply wrong(unsigned status, const char* kind, const std::string& message) {
  const Json error = {{"ok", false}, {"error", {{"kind", kind}, {"message", message}}}};
  return {status, error.dump(-1, ' ', false, Json::error_handler_t::replace)};
}

Reply result(const Json& json) {
  return {200, json.dump(-1, ' ', false, Json::error_handler_t::replace)};
}

Json parsed(const std::string& body) {
  if (Board::isTooDeep(body)) throw UsageError("too many brackets within each other");
  Json json = Json::parse(body, nullptr, false);
  if (!json.is_object()) throw UsageError("the request is no JSON object");
  return json;
}

// The state directory of the agent that is asked.
std::string directoryOf(const AgentOptions& options) {
  if (options.stateDirectory.empty() && !options.socket.empty()) {
    return std::filesystem::absolute(options.socket).parent_path();
  }
  Shoal::stateDirectoryIs(options.stateDirectory);
  return Shoal::stateDirectory();
}

FieldPlace placeIn(const Json& request) {
  return {textAt(request, "chip"), textAt(request, "register"), textAt(request, "field")};
}

}  // namespace

Site::Site(const WebArguments& arguments)
    : mayWrite_(arguments.write),
      historyDirectory_(directoryOf(arguments.agent)),
      link_(socketPath(arguments.agent),
            std::chrono::microseconds(static_cast<int64_t>(arguments.agent.timeout * 1e6)),
            {[this](const Json& event) { heard(event); }, [this] { agentChanged(); }}),
      guard_(link_),
      plots_(link_, guard_),
      presence_(link_, [this] {
        feed_.say({{"silent", presence_.silent()}});
      }) {
  if (!link_.connect()) throw Failure(link_.why());
}

Offers Site::offers() {
  return {.page = pageText,
          .posted = [this](const std::string& path, const std::string& body,
                           const Answer& answer) { posted(path, body, answer); },
          .listens = [this] { return listens(); }};
}

void Site::posted(const std::string& path, const std::string& body, const Answer& answer) {
  try {
    const Json request = parsed(body);
    if (path == "/ask") return ask(request, answer);
    if (path == "/history") return answer(history(request));
    if (path == "/plot") return answer(plot(request));
    if (path == "/plot.csv") return answer({200, plots_.csv(placeIn(request)), "text/csv"});
    plots_.forget(placeIn(request));
    answer(result({{"ok", true}}));
  } catch (const Failure&) {  // keys of other types
    answer(wrong(400, "badRequest", "the request makes no sense"));
  } catch (const std::exception& e) {
    answer(wrong(400, "badRequest", e.what()));
  }
}

void Site::ask(const Json& request, const Answer& answer) {
  const std::string op = textAt(request, "op");
  Json passed;
  for (const char* key : keys) {
    if (request.contains(key)) passed[key] = request[key];
  }
  if (op == "hw.read") return readHardware(passed, flagAt(request, "confirmed"), answer);
  if (op == "fields.write") {
    if (!mayWrite_ && !flagAt(request, "dry_run")) {
      return answer(wrong(403, "refused", "korureg web was started without --write"));
    }
    return passOn(std::move(passed), answer);
  }
  if (std::find(looks.begin(), looks.end(), op) == looks.end()) {
    return answer(wrong(403, "refused", fmt::format("the page may not ask for '{}'", op)));
  }
  passed["limit"] =
      std::clamp<uint64_t>(numberAt(request, "limit").value_or(mostInList), 1, mostInList);
  passOn(std::move(passed), answer);
}

// Where that changes the chip it is a write, and has to be meant.
void Site::readHardware(const Json& request, bool isConfirmed, const Answer& answer) {
  if (isConfirmed && mayWrite_) return passOn(request, answer);
  guard_.check(textAt(request, "chip"), textAt(request, "register"),
               [this, request, answer](ReadGuard::Says says) {
                 if (says == ReadGuard::Says::mayRead) return passOn(request, answer);
                 const bool isChange = says == ReadGuard::Says::changesTheChip;
                 answer(wrong(403, "refused",
                              !isChange   ? "the agent does not say what reading it changes"
                              : mayWrite_ ? "reading it changes the chip"
                                          : "reading it changes the chip, and korureg web was "
                                            "started without --write"));
               });
}

void Site::passOn(Json request, const Answer& answer) {
  link_.ask(std::move(request), [answer](const Json* said, const std::string& text) {
    answer(said ? Reply{200, text} : wrong(502, "noAgent", text));
  });
}

Reply Site::history(const Json& request) const {
  const std::string chip = textAt(request, "chip");
  const auto known = Board::chipsWithHistory(historyDirectory_);
  if (std::find(known.begin(), known.end(), chip) == known.end()) {
    return wrong(404, "noHistory", fmt::format("there is no history of '{}'", chip));
  }
  const std::string path = Board::historyPath(historyDirectory_, chip);
  if (std::filesystem::file_size(path) > largestHistory) {
    return wrong(400, "refused", "the history is too long for the page; 'korureg log' shows it");
  }
  const auto records = Board::HistoryReader(path).after(numberAt(request, "after").value_or(0));
  Json list = Json::array();
  for (auto each = records.rbegin(); each != records.rend() && list.size() < mostRecords; ++each) {
    const auto before = std::next(each);
    const uint64_t lost = before == records.rend() ? 0 : each->sequence - before->sequence - 1;
    list.push_back(historyJson(chip, *each, lost));
  }
  return result({{"ok", true}, {"result", std::move(list)}});
}

Reply Site::plot(const Json& request) {
  const auto every = std::chrono::milliseconds(
      std::min<uint64_t>(numberAt(request, "every").value_or(1000), Plots::slowest.count()));
  return result(
      {{"ok", true},
       {"result", plots_.take(placeIn(request), every, numberAt(request, "after").value_or(0))}});
}

Json Site::state() const {
  return {{"agent", link_.isThere()},
          {"why", link_.why()},
          {"write", mayWrite_},
          {"silent", presence_.silent()}};
}

std::shared_ptr<Stream> Site::listens() {
  link_.connect();
  auto stream = feed_.join(state(), Clock::now());
  look_ = std::min(look_, Clock::now());
  return stream;
}

void Site::heard(const Json& event) {
  feed_.hear(event, Clock::now());
  const auto chip = event.find("chip");
  if (chip != event.end() && chip->is_object()) presence_.changed(textAt(*chip, "name"));
}

void Site::agentChanged() {
  presence_.wantedIs(false);
  isSubscribed_ = false;
  feed_.say(state());
  if (feed_.isHeard()) look_ = Clock::now() + (link_.isThere() ? Clock::duration() : betweenLooks);
}

// Events are had only while somebody listens, and an agent that has gone is looked for as long.
void Site::serve(Clock::time_point now) {
  plots_.serve(now);
  feed_.serve(now);
  if (look_ <= now) {
    look_ = never;
    if (feed_.isHeard() && !link_.connect()) look_ = now + betweenLooks;
  }
  presence_.wantedIs(feed_.isHeard() && link_.isThere());
  presence_.serve(now);
  if (feed_.isHeard() != isSubscribed_ && link_.isThere()) {
    isSubscribed_ = feed_.isHeard();
    link_.ask({{"op", isSubscribed_ ? "subscribe" : "unsubscribe"}},
              [](const Json*, const std::string&) {});
  }
}

Clock::time_point Site::next() const {
  return std::min({plots_.next(), feed_.next(), presence_.next(), look_});
}

}  // namespace korureg::web
