#include "board/service/internal/ListAnswer.h"

#include "board/service/JsonText.h"
#include "board/service/internal/Call.h"

namespace Board {

bool ListAnswer::next(std::string& out) {
  if (!separator_) {
    out += "{\"id\":" + jsonText(id_) + ",\"result\":[";
    separator_ = "";
  }
  try {
    return step(out);
  } catch (const RequestError& e) {
    end(out, errorReply(id_, e.kind(), e.what()));
  } catch (const std::exception& e) {
    end(out, errorReply(id_, "failed", e.what()));
  }
  return false;
}

// The place of an entry that is too many is where the next list begins.
bool ListAnswer::step(std::string& out) {
  const Json place = left_ == 0 ? entries_->place() : Json();
  Json entry;
  switch (entries_->step(entry)) {
    case Entries::Step::ended:
      end(out, {{"ok", true}});
      return false;
    case Entries::Step::leftOut:
      return true;
    case Entries::Step::made:
      break;
  }
  if (left_ == 0) {
    end(out, {{"next", place}, {"ok", true}});
    return false;
  }
  --left_;
  out += separator_ + jsonText(entry);
  separator_ = ",";
  return true;
}

// What is said of the list, but for the id, which stands in front.
void ListAnswer::end(std::string& out, const Json& more) const {
  out += ']';
  for (const auto& [key, value] : more.items()) {
    if (key != "id") out += ",\"" + key + "\":" + jsonText(value);
  }
  out += '}';
}

}  // namespace Board
