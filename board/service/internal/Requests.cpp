#include "board/service/internal/Requests.h"

#include <fmt/format.h>

#include <utility>

#include "KoruRegFile/ShadowSms.h"
#include "board/service/JsonText.h"
#include "board/service/internal/Call.h"

namespace Board {

namespace {

constexpr const char* onStartNames[] = {"trust", "rewrite", "defaults"};

std::string deviceText(const Ore::Central::DeviceId& id) {
  return fmt::format("{:04x}:{:04x}:{:x}", id.vendor(), id.device(), id.revision());
}

}  // namespace

struct Requests::Entry {
  const char* name;
  Operation operation;
};

const Requests::Entry* Requests::find(const std::string& op) {
  static constexpr Entry entries[] = {
      {"chip.list", &Requests::chipList},
      {"chip.show", &Requests::chipShow},
      {"chip.registers", &Requests::chipRegisters},
      {"chip.rewrite", &Requests::chipRewrite},
      {"chip.defaults", &Requests::chipDefaults},
      {"field.list", &Requests::fieldList},
      {"field.read", &Requests::fieldRead},
      {"field.write", &Requests::fieldWrite},
      {"field.reset", &Requests::fieldReset},
      {"fields.write", &Requests::fieldsWrite},
      {"register.list", &Requests::registerList},
      {"register.read", &Requests::registerRead},
      {"register.write", &Requests::registerWrite},
      {"hw.list", &Requests::hwList},
      {"hw.read", &Requests::hwRead},
      {"hw.write", &Requests::hwWrite},
      {"stats", &Requests::stats},
      {"metrics", &Requests::metrics},
      {"entity.list", &Requests::entityList},
      {"entity.get", &Requests::entityGet},
      {"subscribe", &Requests::subscribe},
      {"unsubscribe", &Requests::unsubscribe},
      {"bus.subscribe", &Requests::busSubscribe},
      {"bus.unsubscribe", &Requests::busUnsubscribe},
  };
  for (const Entry& entry : entries) {
    if (op == entry.name) return &entry;
  }
  return nullptr;
}

void Requests::handle(const Json& request, const Reply& reply, const Asker& asker) {
  Call call{request, reply, asker};
  try {
    const std::string op = call.text("op");
    const Entry* entry = find(op);
    if (!entry)
      throw RequestError("unknownOperation", fmt::format("there is no operation '{}'", op));
    const Json result = (this->*entry->operation)(call);
    if (!call.answersLater) reply(call.resultLine(result));
  } catch (const RequestError& e) {
    reply(jsonText(call.failure(e.kind(), e.what())));
  } catch (const std::exception& e) {
    reply(jsonText(call.failure("failed", e.what())));
  }
}

Json Requests::chipJson(const std::string& chip) const {
  const Health health = keeper_.health(chip);
  Json json = {{"name", chip}, {"state", stateName(health.state)}, {"reason", health.reason}};
  if (const Chip* description = keeper_.description(chip)) {
    json["device_id"] = deviceText(description->devId);
    json["profile"] = description->profile;
    json["register_map"] = description->registerMap;
    json["transport"] = description->transport.text();
    if (!description->transport.device.empty()) {
      json["device"] = description->transport.device;
      json["address"] = description->transport.address;
    }
    json["on_start"] = onStartNames[static_cast<size_t>(description->onStart)];
    json["fields"] = description->fields.size();
  }
  if (const auto shadowSm = keeper_.shadowSm(chip))
    json["registers"] = shadowSm->regConfig().size();
  json["attempts"] = health.attempts;
  json["failed_writes"] = health.failedWrites;
  json["rewrites"] = health.rewrites;
  json["pending_writes"] = health.pendingWrites;
  json["drifted"] = health.drifted;
  json["resets"] = health.resets;
  json["in_flight"] = health.inFlight;
  return json;
}

Json Requests::chipShow(Call& call) {
  const std::string chip = call.text("chip");
  requireChip(keeper_, chip);
  return chipJson(chip);
}

Json Requests::subscribe(Call& call) {
  const auto chip = call.optionalText("chip");
  if (chip) requireChip(keeper_, *chip);
  call.asker.subscribe(chip.value_or(""));
  return nullptr;
}

Json Requests::unsubscribe(Call& call) {
  call.asker.unsubscribe();
  return nullptr;
}

Json Requests::chipEvent(const std::string& chip) const {
  if (!keeper_.hasChip(chip)) {
    return {{"event", "chip"}, {"chip", {{"name", chip}, {"state", "gone"}}}};
  }
  return {{"event", "chip"}, {"chip", chipJson(chip)}};
}

Json Requests::fieldEvent(const std::string& chip,
                          const KoruRegFile::LogicalFieldName& field) const {
  const auto logical = keeper_.logicalChip(chip);
  const std::string reg = field.regName().name().c_str();
  Json event = {{"event", "field"},
                {"chip", chip},
                {"register", reg},
                {"field", field.name().c_str()},
                {"value", logical ? logical->logicalField(field).value() : 0}};
  if (const Field* described = keeper_.field(chip, reg, field.name().view())) {
    addMeaning(event, described->meaning.get(), event["value"], described->logical.size);
  }
  return event;
}

Json Requests::sentEvent(const std::string& chip, const Orb::String& reg, const Orb::String& field,
                         uint32_t value) {
  return {{"event", "field"},       {"chip", chip},   {"register", reg.c_str()},
          {"field", field.c_str()}, {"value", value}, {"pulse", true}};
}

Json Requests::driftEvent(const std::string& chip, const Drift& drift) {
  return {{"event", "drift"},
          {"chip", chip},
          {"register", drift.reg.c_str()},
          {"written", drift.written},
          {"found", drift.found}};
}

Json Requests::resetEvent(const std::string& chip, const std::string& why) {
  return {{"event", "reset"}, {"chip", chip}, {"reason", why}};
}

}  // namespace Board
