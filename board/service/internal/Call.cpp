#include "board/service/internal/Call.h"

#include <fmt/format.h>

#include "KoruRegFile/RegisterBits.h"
#include "board/chips/FieldIndex.h"
#include "board/service/JsonText.h"

namespace Board {

namespace {

uint64_t numberIn(const char* key, const Json& value) {
  if (value.is_number_unsigned()) return value.get<uint64_t>();
  try {
    if (value.is_string()) return KoruRegFile::parseNumber(value.get_ref<const std::string&>());
  } catch (const std::invalid_argument& e) {
    throw RequestError("badValue", fmt::format("'{}': {}", key, e.what()));
  }
  throw RequestError("badValue",
                     fmt::format("'{}' has to be a number from 0 on, or a string with one", key));
}

std::string whyDown(const BoardKeeper& keeper, const std::string& chip) {
  const Health health = keeper.health(chip);
  return fmt::format("chip '{}' is not up: {}{}{}", chip, stateName(health.state),
                     health.reason.empty() ? "" : ": ", health.reason);
}

}  // namespace

RequestError::~RequestError() = default;

std::optional<std::string> Requests::Call::optionalText(const char* key) const {
  const auto found = request.find(key);
  if (found == request.end()) return std::nullopt;
  if (!found->is_string())
    throw RequestError("badRequest", fmt::format("'{}' has to be a string", key));
  return found->get<std::string>();
}

std::string Requests::Call::text(const char* key) const {
  if (const auto found = optionalText(key)) return *found;
  throw RequestError("badRequest", fmt::format("'{}' is missing", key));
}

uint64_t Requests::Call::number(const char* key, unsigned bits) const {
  const auto found = request.find(key);
  if (found == request.end()) throw RequestError("badRequest", fmt::format("'{}' is missing", key));
  const uint64_t number = numberIn(key, *found);
  if (!KoruRegFile::fitsWidth(number, bits)) {
    throw RequestError(
        "badValue", fmt::format("'{}' is {:#x}, which has more than {} bits", key, number, bits));
  }
  return number;
}

bool Requests::Call::flag(const char* key) const {
  const auto found = request.find(key);
  if (found == request.end()) return false;
  if (!found->is_boolean())
    throw RequestError("badRequest", fmt::format("'{}' has to be true or false", key));
  return found->get<bool>();
}

size_t Requests::Call::from() const {
  return request.contains("from") ? static_cast<size_t>(number("from", 32)) : 0;
}

size_t Requests::Call::limit() const {
  if (!request.contains("limit")) return SIZE_MAX;
  const auto limit = static_cast<size_t>(number("limit", 32));
  if (limit == 0) throw RequestError("badValue", "'limit' has to be 1 at least");
  return limit;
}

Json Requests::Call::id() const {
  const auto found = request.find("id");
  return found == request.end() ? Json() : *found;
}

std::string Requests::Call::resultLine(const Json& value) const {
  const auto id = request.find("id");
  return "{\"id\":" + (id == request.end() ? "null" : jsonText(*id)) +
         ",\"ok\":true,\"result\":" + jsonText(value) + '}';
}

Json Requests::Call::result(const Json& value) const {
  return {{"id", id()}, {"ok", true}, {"result", value}};
}

Json Requests::Call::failure(const char* kind, const std::string& message) const {
  return errorReply(id(), kind, message);
}

Json errorReply(const Json& id, const std::string& kind, const std::string& message) {
  return {{"id", id}, {"ok", false}, {"error", {{"kind", kind}, {"message", message}}}};
}

void requireChip(const BoardKeeper& keeper, const std::string& chip) {
  if (keeper.hasChip(chip)) return;
  throw RequestError("noSuchChip", fmt::format("there is no chip '{}'", chip));
}

Orb::Ptr<KoruRegFile::LogicalChip> findChip(const BoardKeeper& keeper, const std::string& chip) {
  requireChip(keeper, chip);
  auto found = keeper.logicalChip(chip);
  if (!found) throw RequestError("notUp", whyDown(keeper, chip));
  return found;
}

Orb::Ptr<KoruRegFile::TransportMethod> findTransport(const BoardKeeper& keeper,
                                                     const std::string& chip) {
  requireChip(keeper, chip);
  auto found = keeper.transport(chip);
  if (!found) throw RequestError("notUp", whyDown(keeper, chip));
  return found;
}

const KoruRegFile::LogicalRegister& findRegister(const KoruRegFile::LogicalChip& chip,
                                                 const std::string& reg) {
  const KoruRegFile::LogicalRegisterName name(chip.name(), reg);
  if (!chip.regCollHas(name)) {
    throw RequestError("noSuchRegister",
                       fmt::format("chip '{}' has no logical register '{}'", chip.name(), reg));
  }
  return chip.regColl(name);
}

FoundField findField(const BoardKeeper& keeper, const std::string& chip, const std::string& reg,
                     const std::string& field) {
  const auto logical = findChip(keeper, chip);
  const auto hasStatus = [&] {
    return keeper.fields(chip)->firstStatusOf(reg) != RegisterIndex::none;
  };
  if (keeper.statusField(chip, reg, field)) {
    throw RequestError("refused",
                       fmt::format("{}.{} of chip '{}' is a status field, which is never "
                                   "written",
                                   reg, field, chip));
  }
  if (!logical->regCollHas({logical->name(), reg}) && hasStatus()) {
    throw RequestError("noSuchField", fmt::format("status register '{}' of chip '{}' has no field "
                                                  "'{}'",
                                                  reg, chip, field));
  }
  const auto& found = findRegister(*logical, reg);
  const KoruRegFile::LogicalFieldName name(found.name(), field);
  const Field* const described = keeper.field(chip, reg, field);
  if (!described || !found.fieldHas(name)) {
    throw RequestError("noSuchField", fmt::format("register '{}' of chip '{}' has no field '{}'",
                                                  reg, chip, field));
  }
  return {logical, name, described};
}

uint32_t fieldValue(const Requests::Call& call, const Field& field) {
  const Meaning* const meaning = field.meaning.get();
  const auto value = call.request.find("value");
  if (const auto text = call.optionalText("text")) {
    if (value != call.request.end()) {
      throw RequestError("badRequest", "there is either a 'value' or a 'text'");
    }
    try {
      return rawValue(meaning, *text, field.logical.size);
    } catch (const std::invalid_argument& e) {
      throw RequestError("badValue", fmt::format("field {}.{}: {}", field.logicalRegister,
                                                 field.logicalField, e.what()));
    }
  }
  if (meaning && value != call.request.end() && value->is_string()) {
    const auto& name = value->get_ref<const std::string&>();
    for (const NamedValue& named : meaning->values) {
      if (named.name == name) return named.value;
    }
  }
  return static_cast<uint32_t>(call.number("value", field.logical.size));
}

uint32_t valueIn(uint32_t registerValue, const Bits& bits) {
  return static_cast<uint32_t>((uint64_t{registerValue} >> bits.start) &
                               ((uint64_t{1} << bits.size) - 1));
}

void addMeaning(Json& json, const Meaning* meaning, uint32_t value, unsigned size) {
  if (!meaning || !meaning->isSpoken()) return;
  json["text"] = meaning->textOf(value, size);
  if (meaning->isScaled()) json["number"] = meaning->numberOf(value, size);
  if (const std::string* name = meaning->nameOf(value)) json["name"] = *name;
}

}  // namespace Board
