#include "board/service/internal/Requests.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "KoruRegFile/ShadowSms.h"
#include "Orb/Counter.h"
#include "Orb/EntityStrep.h"
#include "Orb/EntityType.h"
#include "board/chips/WantedRegisters.h"
#include "board/devices/TransportKind.h"
#include "board/service/internal/Call.h"

namespace Board {

namespace {

constexpr const char* onStartNames[] = {"trust", "rewrite", "defaults"};
constexpr const char* waysOut = "write its fields instead, or say force";

std::string deviceText(const Ore::Central::DeviceId& id) {
  return fmt::format("{:04x}:{:04x}:{:x}", id.vendor(), id.device(), id.revision());
}

// A register of the chip's map that its transport can carry.
const KoruRegFile::Register& findHardwareRegister(const KoruRegFile::TransportMethod& transport,
                                                  const Transport& described,
                                                  const std::string& reg) {
  const KoruRegFile::RegisterFile& map = *transport.regFileHelper().csvRegFile();
  if (!map.hasRegName(reg)) {
    throw RequestError("noSuchRegister", fmt::format("there is no register '{}' in the map of chip "
                                                     "'{}'",
                                                     reg, transport.name()));
  }
  const KoruRegFile::Register& found = map.findRegisterByName(std::string_view(reg));
  if (const auto why = described.whyNot(found)) {
    throw RequestError("refused", fmt::format("register '{}' cannot be accessed: {}", reg, *why));
  }
  return found;
}

}  // namespace

struct Requests::Entry {
  const char* name;
  Operation operation;
};

const Requests::Entry* Requests::find(const std::string& op) {
  static constexpr Entry entries[] = {
      {"chip.list", &Requests::chipList},
      {"chip.registers", &Requests::chipRegisters},
      {"field.read", &Requests::fieldRead},
      {"field.write", &Requests::fieldWrite},
      {"field.reset", &Requests::fieldReset},
      {"register.read", &Requests::registerRead},
      {"register.write", &Requests::registerWrite},
      {"hw.read", &Requests::hwRead},
      {"hw.write", &Requests::hwWrite},
      {"stats", &Requests::stats},
      {"entity.list", &Requests::entityList},
      {"entity.get", &Requests::entityGet},
      {"subscribe", &Requests::subscribe},
      {"unsubscribe", &Requests::unsubscribe},
  };
  for (const Entry& entry : entries) {
    if (op == entry.name) return &entry;
  }
  return nullptr;
}

void Requests::handle(const Json& request, const Reply& reply, const Subscription& subscription) {
  Call call{request, reply, subscription};
  try {
    const std::string op = call.text("op");
    const Entry* entry = find(op);
    if (!entry)
      throw RequestError("unknownOperation", fmt::format("there is no operation '{}'", op));
    const Json result = (this->*entry->operation)(call);
    if (!call.answersLater) reply(call.result(result));
  } catch (const RequestError& e) {
    reply(call.failure(e.kind(), e.what()));
  } catch (const std::exception& e) {
    reply(call.failure("failed", e.what()));
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
  json["in_flight"] = health.inFlight;
  return json;
}

Json Requests::chipList(Call&) {
  Json list = Json::array();
  for (const std::string& chip : keeper_.chipNames()) list.push_back(chipJson(chip));
  return list;
}

Json Requests::chipRegisters(Call& call) {
  const std::string chip = call.text("chip");
  const auto transport = findTransport(keeper_, chip);
  const auto shadowSm = keeper_.shadowSm(chip);
  Json list = Json::array();
  if (!shadowSm) return list;
  const auto* map = transport->regFileHelper().csvRegFile();
  for (const auto& [address, wanted] : wantedRegisters(*shadowSm)) {
    const auto& reg = map->findRegisterByName(map->regNameAtAddr(address));
    list.push_back({{"name", reg.name.c_str()},
                    {"address", address},
                    {"width", reg.width},
                    {"type", KoruRegFile::Register::regTypeToString(reg.type)},
                    {"wanted", wanted},
                    {"written", shadowSm->regStatus()(address)}});
  }
  return list;
}

Json Requests::fieldRead(Call& call) {
  const auto found =
      findField(keeper_, call.text("chip"), call.text("register"), call.text("field"));
  return {{"value", found.chip->logicalField(found.name).value()}};
}

// What was written is acknowledged when a restart finds it.
void Requests::requireSafe(const std::string& chip) {
  const std::string why = keeper_.whyUnsafe(chip);
  if (!why.empty()) {
    throw RequestError("failed", fmt::format("a restart may not find what was written: {}", why));
  }
}

Json Requests::fieldWrite(Call& call) {
  const auto found =
      findField(keeper_, call.text("chip"), call.text("register"), call.text("field"));
  const auto value = static_cast<uint32_t>(call.number("value", found.described->logical.size));
  found.chip->fieldWrite(found.described->logicalRegister, found.described->logicalField, value);
  requireSafe(call.text("chip"));
  return {{"value", value}};
}

Json Requests::fieldReset(Call& call) {
  const auto found =
      findField(keeper_, call.text("chip"), call.text("register"), call.text("field"));
  const uint32_t value = found.described->value;
  found.chip->fieldWrite(found.described->logicalRegister, found.described->logicalField, value);
  requireSafe(call.text("chip"));
  return {{"value", value}};
}

Json Requests::registerRead(Call& call) {
  const auto chip = findChip(keeper_, call.text("chip"));
  const std::string wanted = call.text("register");
  const auto& reg = findRegister(*chip, wanted);
  Json fields = Json::object();
  for (const auto& [name, present] : reg.field()) {
    fields[name.name().c_str()] = chip->logicalField(name).value();
  }
  return {{"value", reg.value()}, {"fields", fields}};
}

Json Requests::registerWrite(Call& call) {
  const auto chip = findChip(keeper_, call.text("chip"));
  const std::string wanted = call.text("register");
  const auto& reg = findRegister(*chip, wanted);
  const uint64_t value = call.number("value", 64);
  uint64_t covered = 0;
  for (const auto& [name, present] : reg.field()) {
    const auto& field = chip->logicalField(name);
    covered |= ((uint64_t{1} << field.size()) - 1) << field.start();
  }
  if ((value & ~covered) != 0) {
    throw RequestError("badValue", fmt::format("the bits {:#x} of {:#x} belong to no field of "
                                               "register '{}'",
                                               value & ~covered, value, reg.name().name()));
  }
  chip->regWrite(Orb::String(reg.name().name()), value);
  requireSafe(call.text("chip"));
  return {{"value", value}};
}

// Answers when the access has ended, with the value that was read or written.
KoruRegFile::AccessCallback Requests::answerTo(const Call& call, const Transport& transport,
                                               const std::string& failed) {
  return [reply = call.reply, transport, answer = call.result({{"value", nullptr}}),
          failure = call.failure("failed", failed)](const KoruRegFile::AccessOutcome& outcome) {
    Json told = outcome.isDone() ? answer : failure;
    if (outcome.isDone()) {
      told["result"]["value"] = outcome.value;
    } else {
      told["error"]["message"].get_ref<std::string&>() +=
          ": " + explained(transport, *outcome.failure);
    }
    reply(told);
  };
}

Json Requests::hwRead(Call& call) {
  const std::string chip = call.text("chip");
  const auto transport = findTransport(keeper_, chip);
  const std::string name = call.text("register");
  const Transport& described = keeper_.description(chip)->transport;
  findHardwareRegister(*transport, described, name);
  call.answersLater = true;
  transport->regReadOutcome(
      name, answerTo(call, described, fmt::format("register '{}' could not be read", name)));
  return {};
}

Json Requests::hwWrite(Call& call) {
  const std::string chip = call.text("chip");
  const auto transport = findTransport(keeper_, chip);
  const std::string name = call.text("register");
  const Transport& described = keeper_.description(chip)->transport;
  const KoruRegFile::Register& reg = findHardwareRegister(*transport, described, name);
  const auto value = static_cast<uint32_t>(call.number("value", reg.width));
  const auto shadowSm = keeper_.shadowSm(chip);
  if (!call.flag("force")) {
    if (shadowSm && shadowSm->regConfig().has(reg.address)) {
      throw RequestError("refused", fmt::format("register '{}' is configured; {}", name, waysOut));
    }
    if (!reg.writeable) {
      throw RequestError("refused", fmt::format("register '{}' is read-only in the map", name));
    }
  }
  call.answersLater = true;
  transport->regWriteOutcome(
      name, value,
      answerTo(call, described, fmt::format("register '{}' could not be written", name)));
  return {};
}

Json Requests::stats(Call&) {
  Json list = Json::array();
  for (const auto& [owner, name, value] : Orb::counterReadings()) {
    list.push_back({{"owner", owner}, {"name", name}, {"value", value}});
  }
  return list;
}

Json Requests::entityList(Call&) {
  Json list = Json::array();
  for (const auto& entity : Orb::namedEntities()) {
    list.push_back({{"type", entity->fwkType().name()}, {"name", entity->entityName().c_str()}});
  }
  return list;
}

Json Requests::entityGet(Call& call) {
  const std::string type = call.text("type");
  const std::string name = call.text("name");
  const auto wanted = call.optionalText("attribute");
  for (const auto& entity : Orb::namedEntities()) {
    if (entity->fwkType().name() != type || entity->entityName() != name) continue;
    Json attributes = Json::object();
    for (const auto& attribute : entity->fwkType().attributes()) {
      if (wanted && *wanted != attribute.name) continue;
      attributes[attribute.name] = attribute.strep(*entity);
    }
    if (wanted && attributes.empty()) {
      throw RequestError("noSuchAttribute", fmt::format("{} has no attribute '{}'", type, *wanted));
    }
    return attributes;
  }
  throw RequestError("noSuchEntity", fmt::format("there is no {} named '{}'", type, name));
}

Json Requests::subscribe(Call& call) {
  const auto chip = call.optionalText("chip");
  if (chip) requireChip(keeper_, *chip);
  call.subscription.add(chip.value_or(""));
  return nullptr;
}

Json Requests::unsubscribe(Call& call) {
  call.subscription.remove();
  return nullptr;
}

Json Requests::chipEvent(const std::string& chip) const {
  const auto names = keeper_.chipNames();
  if (std::find(names.begin(), names.end(), chip) == names.end()) {
    return {{"event", "chip"}, {"chip", {{"name", chip}, {"state", "gone"}}}};
  }
  return {{"event", "chip"}, {"chip", chipJson(chip)}};
}

Json Requests::fieldEvent(const std::string& chip,
                          const KoruRegFile::LogicalFieldName& field) const {
  const auto logical = keeper_.logicalChip(chip);
  return {{"event", "field"},
          {"chip", chip},
          {"register", field.regName().name().c_str()},
          {"field", field.name().c_str()},
          {"value", logical ? logical->logicalField(field).value() : 0}};
}

}  // namespace Board
