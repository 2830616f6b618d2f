// Requests about the registers of the hardware.

#include <fmt/format.h>

#include <set>
#include <utility>

#include "KoruRegFile/ShadowSms.h"
#include "board/devices/TransportKind.h"
#include "board/service/JsonText.h"
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
    reply(jsonText(line));
  };
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
