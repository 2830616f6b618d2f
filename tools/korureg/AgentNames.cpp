#include "korureg/AgentNames.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <vector>

#include "korureg/AgentAnswer.h"
#include "korureg/AgentClient.h"
#include "korureg/Suggest.h"

namespace korureg {

namespace {

using nlohmann::ordered_json;

// What the request names beside the chip: one register or field, or several of them.
ordered_json namedIn(const ordered_json& request) {
  if (const auto fields = request.find("fields"); fields != request.end()) return *fields;
  auto named = ordered_json::array();
  if (const auto registers = request.find("registers"); registers != request.end()) {
    for (const auto& reg : *registers) named.push_back({{"register", reg}});
    return named;
  }
  named.push_back(request);
  return named;
}

// Whether the registers in the request are those of the hardware.
bool isOfHardware(const ordered_json& request) {
  return request.contains("registers") || textAt(request, "op").starts_with("hw.");
}

std::string nearest(const std::string& wanted, const std::vector<std::string>& names) {
  return suggestion(wanted, {names.begin(), names.end()});
}

std::string nearestChip(AgentClient& client, const ordered_json& request) {
  std::vector<std::string> names;
  for (const auto& chip : listIn(client.askPlainly({{"op", "chip.list"}}))) {
    names.push_back(textAt(chip, "name"));
  }
  return nearest(textAt(request, "chip"), names);
}

std::string nearestRegister(AgentClient& client, const ordered_json& request) {
  const char* op = isOfHardware(request) ? "hw.list" : "register.list";
  std::vector<std::string> names;
  for (const auto& reg : listIn(client.askPlainly({{"op", op}, {"chip", request.at("chip")}}))) {
    names.push_back(textAt(reg, "name"));
  }
  for (const auto& wanted : namedIn(request)) {
    const std::string name = textAt(wanted, "register");
    if (std::find(names.begin(), names.end(), name) == names.end()) return nearest(name, names);
  }
  return "";
}

std::string nearestField(AgentClient& client, const ordered_json& request) {
  const ordered_json list =
      listIn(client.askPlainly({{"op", "field.list"}, {"chip", request.at("chip")}}));
  for (const auto& wanted : namedIn(request)) {
    const std::string field = textAt(wanted, "field");
    std::vector<std::string> names;
    for (const auto& entry : list) {
      if (textAt(entry, "register") == textAt(wanted, "register")) {
        names.push_back(textAt(entry, "field"));
      }
    }
    if (std::find(names.begin(), names.end(), field) == names.end()) return nearest(field, names);
  }
  return "";
}

struct Kind {
  const char* name;
  std::string (*nearest)(AgentClient& client, const ordered_json& request);
};

constexpr Kind kinds[] = {
    {"noSuchChip", nearestChip},
    {"noSuchRegister", nearestRegister},
    {"noSuchField", nearestField},
};

}  // namespace

std::string nearestNames(AgentClient& client, const ordered_json& request,
                         const std::string& kind) {
  for (const Kind& known : kinds) {
    if (kind != known.name) continue;
    try {
      return known.nearest(client, request);
    } catch (const std::runtime_error&) {
      return "";  // the refusal is what counts
    }
  }
  return "";
}

}  // namespace korureg
