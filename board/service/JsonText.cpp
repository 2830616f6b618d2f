#include "board/service/JsonText.h"

#include <nlohmann/json.hpp>

namespace Board {

bool isTooDeep(std::string_view json) {
  size_t depth = 0;
  bool inString = false;
  for (size_t i = 0; i < json.size(); ++i) {
    const char c = json[i];
    if (c == '"') inString = !inString;
    if (inString) {
      if (c == '\\') ++i;  // whatever is escaped ends no string
      continue;
    }
    if ((c == '[' || c == '{') && ++depth > deepestJson) return true;
    if ((c == ']' || c == '}') && depth > 0) --depth;
  }
  return false;
}

std::string jsonText(const nlohmann::ordered_json& json) {
  return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace Board
