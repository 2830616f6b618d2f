// Requests about the registers of the hardware.

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <utility>

#include "KoruRegFile/ShadowSms.h"
#include "board/chips/Verification.h"
#include "board/chips/WantedRegisters.h"
#include "board/devices/TransportKind.h"
#include "board/service/internal/Call.h"

namespace Board {

namespace {

using KoruRegFile::Register;

constexpr const char* waysOut = "write its fields instead, or say force";

// A register of the chip's map.
const Register& registerOf(const KoruRegFile::TransportMethod& transport, const std::string& reg) {
  const KoruRegFile::RegisterFile& map = *transport.regFileHelper().csvRegFile();
  if (!map.hasRegName(reg)) {
    throw RequestError("noSuchRegister", fmt::format("there is no register '{}' in the map of chip "
                                                     "'{}'",
                                                     reg, transport.name()));
  }
  return map.findRegisterByName(std::string_view(reg));
}

// One that the transport can carry.
const Register& findHardwareRegister(const KoruRegFile::TransportMethod& transport,
                                     const Transport& described, const std::string& reg) {
  const Register& found = registerOf(transport, reg);
  if (const auto why = described.whyNot(found)) {
    throw RequestError("refused", fmt::format("register '{}' cannot be accessed: {}", reg, *why));
  }
  return found;
}

}  // namespace

// In the order of the map.
Json Requests::chipRegisters(Call& call) {
  const std::string chip = call.text("chip");
  const auto transport = findTransport(keeper_, chip);
  const auto shadowSm = keeper_.shadowSm(chip);
  Json list = Json::array();
  if (!shadowSm) return list;
  const Chip& description = *keeper_.description(chip);
  const auto& map = *transport->regFileHelper().csvRegFile();
  const Verification verification(description);
  std::vector<std::pair<const Register*, std::pair<uint32_t, uint32_t>>> registers;
  for (const auto& entry : wantedRegisters(*shadowSm)) {
    registers.emplace_back(&map.findRegisterByName(map.regNameAtAddr(entry.first).view()), entry);
  }
  std::stable_sort(registers.begin(), registers.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  for (const auto& [reg, entry] : registers) {
    Json json = {{"name", reg->name.c_str()}, {"address", entry.first},
                 {"width", reg->width},       {"type", Register::regTypeToString(reg->type)},
                 {"wanted", entry.second},    {"written", shadowSm->regStatus()(entry.first)}};
    const auto verified = verification.verified(*reg);
    json["verified"] = verified.mask;
    if (verified.mask == 0) json["why"] = verified.whyNot;
    if (description.readChanges.contains(reg->name.c_str())) json["read_changes"] = true;
    list.push_back(std::move(json));
  }
  return list;
}

// Answers when they have been written.
Json Requests::chipRewrite(Call& call) {
  const std::string chip = call.text("chip");
  const auto transport = findTransport(keeper_, chip);
  const auto shadowSm = keeper_.shadowSm(chip);
  if (!shadowSm) throw RequestError("notUp", keeper_.health(chip).reason);
  std::set<uint32_t> addresses;
  const auto given = call.request.find("registers");
  if (given != call.request.end()) {
    if (!given->is_array() || given->empty()) {
      throw RequestError("badRequest", "'registers' has to be a list of names");
    }
    for (const Json& name : *given) {
      if (!name.is_string())
        throw RequestError("badRequest", "'registers' has to be a list of names");
      const Register& reg = registerOf(*transport, name.get_ref<const std::string&>());
      if (!shadowSm->regConfig().has(reg.address)) {
        throw RequestError("refused",
                           fmt::format("register '{}' has no fields; nobody knows what it "
                                       "is to hold",
                                       reg.name));
      }
      addresses.insert(reg.address);
    }
  }
  call.answersLater = true;
  const size_t count = addresses.empty() ? shadowSm->regConfig().size() : addresses.size();
  const auto answer = answerTo(call, keeper_.description(chip)->transport,
                               "the registers could not be rewritten", [count](uint32_t) {
                                 return Json{{"written", count}};
                               });
  if (addresses.empty()) {
    keeper_.rewrite(chip, answer);
  } else {
    keeper_.rewrite(chip, {addresses.begin(), addresses.end()}, answer);
  }
  return {};
}

// Answers when the access has ended, with the value that was read or written.
KoruRegFile::AccessCallback Requests::answerTo(const Call& call, const Transport& transport,
                                               const std::string& failed, Told told) {
  return [reply = call.reply, transport, answer = call.result(nullptr),
          failure = call.failure("failed", failed),
          told = std::move(told)](const KoruRegFile::AccessOutcome& outcome) {
    Json line = outcome.isDone() ? answer : failure;
    if (outcome.isDone()) {
      line["result"] = told ? told(outcome.value) : Json{{"value", outcome.value}};
    } else {
      line["error"]["message"].get_ref<std::string&>() +=
          ": " + explained(transport, *outcome.failure);
    }
    reply(line);
  };
}

Json Requests::hwList(Call& call) {
  const std::string chip = call.text("chip");
  const auto transport = findTransport(keeper_, chip);
  const auto shadowSm = keeper_.shadowSm(chip);
  const Chip& description = *keeper_.description(chip);
  Json list = Json::array();
  for (const Register& reg : transport->regFileHelper().csvRegFile()->registers()) {
    const auto why = description.transport.whyNotRead(reg);
    Json json = {{"name", reg.name.c_str()},   {"address", reg.address},
                 {"width", reg.width},         {"type", Register::regTypeToString(reg.type)},
                 {"writeable", reg.writeable}, {"readable", !why.has_value()}};
    if (why) json["why"] = *why;
    if (description.readChanges.contains(reg.name.c_str())) json["read_changes"] = true;
    json["configured"] = shadowSm && shadowSm->regConfig().has(reg.address);
    list.push_back(std::move(json));
  }
  return list;
}

Json Requests::hwRead(Call& call) {
  const std::string chip = call.text("chip");
  const auto transport = findTransport(keeper_, chip);
  const std::string name = call.text("register");
  findHardwareRegister(*transport, keeper_.description(chip)->transport, name);
  return readLive(call, name, {});
}

Json Requests::hwWrite(Call& call) {
  const std::string chip = call.text("chip");
  const auto transport = findTransport(keeper_, chip);
  const std::string name = call.text("register");
  const Transport& described = keeper_.description(chip)->transport;
  const Register& reg = findHardwareRegister(*transport, described, name);
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

}  // namespace Board
