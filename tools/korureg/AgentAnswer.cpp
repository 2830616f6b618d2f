#include "korureg/AgentAnswer.h"

#include <algorithm>

#include "korureg/AgentClient.h"

namespace korureg {

using nlohmann::ordered_json;

namespace {

void require(bool makesSense) {
  if (!makesSense) throw Failure(AgentClient::senseless);
}

const ordered_json* find(const ordered_json& entry, const char* key) {
  require(entry.is_object());
  const auto found = entry.find(key);
  return found == entry.end() || found->is_null() ? nullptr : &*found;
}

}  // namespace

ordered_json listIn(ordered_json answer) {
  require(answer.is_array() && std::all_of(answer.begin(), answer.end(),
                                           [](const auto& entry) { return entry.is_object(); }));
  return answer;
}

ordered_json listAt(const ordered_json& entry, const char* key) {
  const ordered_json* found = find(entry, key);
  return found ? listIn(*found) : ordered_json::array();
}

std::string textAt(const ordered_json& entry, const char* key) {
  const ordered_json* found = find(entry, key);
  require(!found || found->is_string());
  return found ? found->get<std::string>() : "";
}

std::optional<uint64_t> numberAt(const ordered_json& entry, const char* key) {
  const ordered_json* found = find(entry, key);
  require(!found || found->is_number_unsigned());
  return found ? std::optional(found->get<uint64_t>()) : std::nullopt;
}

bool flagAt(const ordered_json& entry, const char* key) {
  const ordered_json* found = find(entry, key);
  require(!found || found->is_boolean());
  return found && found->get<bool>();
}

uint64_t valueIn(const ordered_json& answer) {
  const auto value = numberAt(answer, "value");
  require(value.has_value());
  return *value;
}

std::string cellAt(const ordered_json& entry, const char* key) {
  const ordered_json* found = find(entry, key);
  if (!found) return "";
  return found->is_string() ? found->get<std::string>()
                            : found->dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

}  // namespace korureg
