// Requests about fields, logical registers and status registers.

#include <fmt/format.h>

#include <utility>

#include "KoruRegFile/ShadowSms.h"
#include "board/chips/FieldIndex.h"
#include "board/devices/TransportKind.h"
#include "board/service/JsonText.h"
#include "board/service/internal/Call.h"

namespace Board {

namespace {

Json planJson(const WritePlan& plan) {
  Json fields = Json::array();
  for (const auto& [field, was, value] : plan.fields) {
    Json json = {{"register", field->logicalRegister.c_str()},
                 {"field", field->logicalField.c_str()},
                 {"value", value},
                 {"was", was}};
    const Meaning* const meaning = field->meaning.get();
    addMeaning(json, meaning, value, field->logical.size);
    if (meaning && meaning->isSpoken())
      json["was_text"] = meaning->textOf(was, field->logical.size);
    fields.push_back(std::move(json));
  }
  Json registers = Json::array();
  for (const RegisterChange& reg : plan.registers) {
    registers.push_back({{"name", reg.name.c_str()}, {"from", reg.from}, {"to", reg.to}});
  }
  return {{"fields", std::move(fields)}, {"registers", std::move(registers)}};
}

RegisterOrder orderOf(const Requests::Call& call) {
  const std::string order = call.optionalText("order").value_or("map");
  if (order == "map") return RegisterOrder::ofMap;
  if (order == "given") return RegisterOrder::asGiven;
  throw RequestError("badRequest", "'order' has to be \"map\" or \"given\"");
}

}  // namespace

// A bus read, and what it has brought of the register.
Json Requests::readLive(Call& call, const std::string& reg, Told told) {
  const std::string chip = call.text("chip");
  const auto transport = findTransport(keeper_, chip);
  call.answersLater = true;
  transport->regReadOutcome(
      reg, answerTo(call, keeper_.description(chip)->transport,
                    fmt::format("register '{}' could not be read", reg), std::move(told)));
  return {};
}

Json Requests::fieldRead(Call& call) {
  const std::string chip = call.text("chip");
  const std::string reg = call.text("register");
  const std::string name = call.text("field");
  const auto liveValue = [](const Bits& bits, const SharedMeaning& meaning, unsigned size) {
    return [bits, meaning, size](uint32_t registerValue) {
      const uint32_t value = valueIn(registerValue, bits);
      Json json = {{"value", value}, {"live", true}};
      addMeaning(json, meaning.get(), value, size);
      return json;
    };
  };
  const bool isLive = call.flag("live");
  if (const StatusField* status = keeper_.statusField(chip, reg, name)) {
    return readLive(call, reg, liveValue(status->bits, status->meaning, status->bits.size));
  }
  const auto found = findField(keeper_, chip, reg, name);
  const Field& field = *found.described;
  if (field.kind == FieldKind::write1clear || isLive) {
    return readLive(call, field.physicalRegister.c_str(),
                    liveValue(field.physical, field.meaning, field.logical.size));
  }
  const uint32_t value = found.chip->logicalField(found.name).value();
  Json json = {{"value", value}};
  addMeaning(json, field.meaning.get(), value, field.logical.size);
  return json;
}

// What was written is acknowledged when a restart finds it.
void Requests::requireSafe(const std::string& chip) {
  const std::string why = keeper_.whyUnsafe(chip, round_);
  if (!why.empty()) {
    throw RequestError("failed", fmt::format("a restart may not find what was written: {}", why));
  }
}

// Answers when what is sent once has ended.
Json Requests::write(Call& call, const WritePlan& plan, const Json& result) {
  const std::string chip = call.text("chip");
  call.answersLater = true;
  const auto answer = [this, alive = std::weak_ptr(alive_), reply = call.reply, chip,
                       done = call.result(result.is_null() ? planJson(plan) : result),
                       failure = call.failure("failed", "a register could not be written")](
                          const KoruRegFile::AccessOutcome& outcome) {
    if (alive.expired()) return;
    Json told = outcome.isDone() ? done : failure;
    const Chip* const described = keeper_.description(chip);
    std::string why;
    if (!outcome.isDone()) {
      why = described ? explained(described->transport, *outcome.failure) : outcome.failure->reason;
    } else if (why = keeper_.whyUnsafe(chip); !why.empty()) {
      told = failure;
      why = "a restart may not find what was written: " + why;
    }
    if (!why.empty()) told["error"]["message"].get_ref<std::string&>() += ": " + why;
    reply(jsonText(told));
  };
  keeper_.write(chip, plan, answer);
  return {};
}

// The usual road, which allocates nothing below here; a field that is sent once takes the other.
Json Requests::writeField(Call& call, const Field& field, uint32_t value) {
  const std::string chip = call.text("chip");
  if (isSentOnce(field.kind)) {
    return write(call, keeper_.plan(chip, {{&field, value}}), {{"value", value}});
  }
  keeper_.logicalChip(chip)->fieldWrite(field.logicalRegister, field.logicalField, value);
  requireSafe(chip);
  return {{"value", value}};
}

Json Requests::fieldWrite(Call& call) {
  const auto found =
      findField(keeper_, call.text("chip"), call.text("register"), call.text("field"));
  return writeField(call, *found.described, fieldValue(call, *found.described));
}

Json Requests::fieldReset(Call& call) {
  const auto found =
      findField(keeper_, call.text("chip"), call.text("register"), call.text("field"));
  return writeField(call, *found.described, found.described->value);
}

Json Requests::fieldsWrite(Call& call) {
  const std::string chip = call.text("chip");
  findChip(keeper_, chip);
  const auto given = call.request.find("fields");
  if (given == call.request.end() || !given->is_array() || given->empty()) {
    throw RequestError("badRequest", "'fields' has to be a list of fields and their values");
  }
  std::vector<FieldWrite> writes;
  for (const Json& item : *given) {
    if (!item.is_object()) throw RequestError("badRequest", "each of 'fields' has to be an object");
    const Call part{item, call.reply, call.asker};
    const auto found = findField(keeper_, chip, part.text("register"), part.text("field"));
    writes.push_back({found.described, fieldValue(part, *found.described)});
  }
  const WritePlan plan = keeper_.plan(chip, writes, orderOf(call));
  return call.flag("dry_run") ? planJson(plan) : write(call, plan);
}

Json Requests::chipDefaults(Call& call) {
  const std::string chip = call.text("chip");
  const auto logical = findChip(keeper_, chip);
  std::vector<FieldWrite> writes;
  for (const Field& field : keeper_.description(chip)->fields) {
    if (isSentOnce(field.kind)) continue;
    const uint32_t present =
        logical->fieldGetLastWritten(field.logicalRegister, field.logicalField);
    if (present != field.value) writes.push_back({&field, field.value});
  }
  return write(call, keeper_.plan(chip, writes));
}

// One read for all status fields of a register.
Json Requests::readStatus(Call& call, const std::string& reg) {
  std::vector<StatusField> fields;
  const std::string chip = call.text("chip");
  const FieldIndex& index = *keeper_.fields(chip);
  for (uint32_t at = index.firstStatusOf(reg); at != RegisterIndex::none;
       at = index.statusRegisters().next(at)) {
    fields.push_back(keeper_.description(chip)->statusFields[at]);
  }
  if (fields.empty()) return nullptr;
  return readLive(call, reg, [fields](uint32_t value) {
    Json json = {{"value", value}, {"live", true}, {"fields", Json::object()}};
    for (const StatusField& field : fields) {
      const uint32_t part = valueIn(value, field.bits);
      json["fields"][field.field.c_str()] = part;
      if (field.meaning && field.meaning->isSpoken()) {
        json["texts"][field.field.c_str()] = field.meaning->textOf(part, field.bits.size);
      }
    }
    return json;
  });
}

Json Requests::registerRead(Call& call) {
  const std::string chipName = call.text("chip");
  const auto chip = findChip(keeper_, chipName);
  const std::string wanted = call.text("register");
  if (!chip->regCollHas({chip->name(), wanted})) {
    if (readStatus(call, wanted); call.answersLater) return {};
  }
  const auto& reg = findRegister(*chip, wanted);
  Json json = {{"value", reg.value()}, {"fields", Json::object()}};
  for (const auto& [name, present] : reg.field()) {
    const uint32_t value = chip->logicalField(name).value();
    json["fields"][name.name().c_str()] = value;
    const Field* const field = keeper_.field(chipName, wanted, name.name().view());
    if (field && field->meaning && field->meaning->isSpoken()) {
      json["texts"][name.name().c_str()] = field->meaning->textOf(value, field->logical.size);
    }
  }
  return json;
}

Json Requests::registerWrite(Call& call) {
  const std::string chipName = call.text("chip");
  const auto chip = findChip(keeper_, chipName);
  const std::string wanted = call.text("register");
  const auto& reg = findRegister(*chip, wanted);
  const uint64_t value = call.number("value", 64);
  uint64_t covered = 0;
  std::vector<FieldWrite> writes;
  for (const auto& [name, present] : reg.field()) {
    const auto& field = chip->logicalField(name);
    const uint64_t mask = (uint64_t{1} << field.size()) - 1;
    covered |= mask << field.start();
    writes.push_back({keeper_.field(chipName, wanted, name.name().view()),
                      static_cast<uint32_t>(value >> field.start() & mask)});
  }
  if ((value & ~covered) != 0) {
    throw RequestError("badValue", fmt::format("the bits {:#x} of {:#x} belong to no field of "
                                               "register '{}'",
                                               value & ~covered, value, reg.name().name()));
  }
  return write(call, keeper_.plan(chipName, writes), {{"value", value}});
}

}  // namespace Board
