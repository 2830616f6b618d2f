// Requests that are answered with lists. Each entry is made from what there is at that time.

#include <fmt/format.h>

#include <utility>

#include "KoruRegFile/ShadowSms.h"
#include "Orb/Counter.h"
#include "board/chips/FieldIndex.h"
#include "board/chips/Verification.h"
#include "board/devices/TransportKind.h"
#include "board/service/internal/Call.h"
#include "board/service/internal/ListAnswer.h"

namespace Board {

namespace {

using KoruRegFile::Register;

Json bitsJson(const Bits& bits) {
  return Json::array({bits.start + bits.size - 1, static_cast<unsigned>(bits.start)});
}

void addWords(Json& json, const Meaning* meaning) {
  if (!meaning) return;
  if (!meaning->unit.empty()) json["unit"] = meaning->unit;
  if (!meaning->description.empty()) json["description"] = meaning->description;
  if (meaning->scale != 1) json["scale"] = meaning->scale;
  if (meaning->offset != 0) json["offset"] = meaning->offset;
  if (meaning->isSigned) json["signed"] = true;
  if (meaning->values.empty()) return;
  Json& values = json["values"] = Json::object();
  for (const NamedValue& named : meaning->values) values[named.name] = named.value;
}

Json describedJson(const Field& field) {
  Json json = {{"register", field.logicalRegister.c_str()},
               {"field", field.logicalField.c_str()},
               {"kind", kindName(field.kind)},
               {"bits", bitsJson(field.logical)},
               {"hw_register", field.physicalRegister.c_str()},
               {"hw_field", field.physicalField.c_str()},
               {"hw_bits", bitsJson(field.physical)},
               {"default", field.value}};
  addWords(json, field.meaning.get());
  return json;
}

Json describedJson(const StatusField& field) {
  Json json = {{"register", field.reg.c_str()},
               {"field", field.field.c_str()},
               {"kind", "status"},
               {"hw_register", field.reg.c_str()},
               {"hw_bits", bitsJson(field.bits)}};
  addWords(json, field.meaning.get());
  return json;
}

// By name, so that chips may come and go meanwhile.
class ChipEntries : public Entries {
 public:
  using Tell = std::function<Json(const std::string& chip)>;
  ChipEntries(const BoardKeeper& keeper, std::string from, Tell tell)
      : keeper_(keeper), at_(std::move(from)), tell_(std::move(tell)) {}

  Json place() const override { return keeper_.chipFrom(at_); }
  Step step(Json& entry) override {
    const std::string chip = keeper_.chipFrom(at_);
    if (chip.empty()) return Step::ended;
    entry = tell_(chip);
    at_ = chip + '\0';  // whatever comes next
    return Step::made;
  }

 private:
  const BoardKeeper& keeper_;
  std::string at_;
  const Tell tell_;
};

// What lies at positions of a chip's description, or of its map: they mean the same as long as the
// chip is described in this way.
class EntriesOfChip : public Entries {
 public:
  EntriesOfChip(const BoardKeeper& board, const std::string& name, size_t from)
      : keeper(board), chip(name), at(from), life_(board.lifeOf(name)) {}

  Json place() const override { return at; }
  Step step(Json& entry) final {
    if (life_.expired()) {
      throw RequestError("notUp", fmt::format("chip '{}' was taken down or described otherwise "
                                              "while its list was made",
                                              chip));
    }
    return stepOn(entry);
  }

 protected:
  virtual Step stepOn(Json& entry) = 0;
  const Chip& description() const { return *keeper.description(chip); }

  const BoardKeeper& keeper;
  const std::string chip;
  size_t at;

 private:
  const std::weak_ptr<const void> life_;
};

// Fields, and status fields behind them. Those of one register are found without a look at the
// others.
class FieldEntries : public EntriesOfChip {
 public:
  FieldEntries(const BoardKeeper& board, const std::string& name, size_t from,
               const std::optional<std::string>& reg)
      : EntriesOfChip(board, name, from), isOne_(reg) {
    if (!reg) return;
    const FieldIndex& index = *keeper.fields(chip);
    const uint32_t first = index.firstOf(*reg);
    const uint32_t firstStatus = index.firstStatusOf(*reg);
    if (first == RegisterIndex::none && firstStatus == RegisterIndex::none) {
      throw RequestError(
          "noSuchRegister",
          fmt::format("chip '{}' has neither a logical register '{}' nor a status register", chip,
                      *reg));
    }
    firstStatus_ = placeOf(firstStatus);
    at = first == RegisterIndex::none ? firstStatus_ : first;
    while (at < from) at = following();
  }

 private:
  Step stepOn(Json& entry) override {
    const Chip& described = description();
    const size_t count = described.fields.size();
    if (at >= count + described.statusFields.size()) return Step::ended;
    entry = at < count ? told(described.fields[at]) : told(described.statusFields[at - count]);
    at = following();
    return Step::made;
  }
  size_t placeOf(uint32_t status) const {
    return status == RegisterIndex::none ? SIZE_MAX : description().fields.size() + status;
  }
  size_t following() const {
    if (!isOne_) return at + 1;
    const FieldIndex& index = *keeper.fields(chip);
    const size_t count = description().fields.size();
    const auto position = static_cast<uint32_t>(at < count ? at : at - count);
    if (at >= count) return placeOf(index.statusRegisters().next(position));
    const uint32_t next = index.registers().next(position);
    return next == RegisterIndex::none ? firstStatus_ : next;
  }
  Json told(const Field& field) const {
    Json json = describedJson(field);
    if (field.kind == FieldKind::write1clear) return json;
    if (const auto logical = keeper.logicalChip(chip)) {
      const uint32_t wanted =
          logical->fieldGetLastWritten(field.logicalRegister, field.logicalField);
      json["wanted"] = wanted;
      addMeaning(json, field.meaning.get(), wanted, field.logical.size);
    }
    if (const auto shadowSm = keeper.shadowSm(chip)) {
      json["written"] = valueIn(shadowSm->regStatus()(field.address), field.physical);
    }
    return json;
  }
  Json told(const StatusField& field) const {
    Json json = describedJson(field);
    if (description().readChanges.contains(field.reg.c_str())) json["read_changes"] = true;
    return json;
  }

  const bool isOne_;  // register
  size_t firstStatus_ = SIZE_MAX;
};

// Logical registers, and status registers behind them.
class RegisterEntries : public EntriesOfChip {
  using EntriesOfChip::EntriesOfChip;

  Step stepOn(Json& entry) override {
    const FieldIndex& index = *keeper.fields(chip);
    const auto& logical = index.registers().firsts();
    const auto& status = index.statusRegisters().firsts();
    if (at >= logical.size() + status.size()) return Step::ended;
    entry = at < logical.size() ? told(description().fields[logical[at]])
                                : statusTold(status[at - logical.size()]);
    ++at;
    return Step::made;
  }
  Json told(const Field& field) const {
    const auto logicalChip = findChip(keeper, chip);
    const std::string name = field.logicalRegister.c_str();
    const auto& reg = findRegister(*logicalChip, name);
    return {{"name", field.logicalRegister.c_str()},
            {"kind", "logical"},
            {"fields", reg.field().size()},
            {"value", reg.value()}};
  }
  Json statusTold(uint32_t first) const {
    size_t count = 0;
    const RegisterIndex& index = keeper.fields(chip)->statusRegisters();
    for (uint32_t each = first; each != RegisterIndex::none; each = index.next(each)) ++count;
    return {{"name", description().statusFields[first].reg.c_str()},
            {"kind", "status"},
            {"fields", count}};
  }
};

// Registers of the map.
class MapEntries : public EntriesOfChip {
 protected:
  using EntriesOfChip::EntriesOfChip;

  virtual bool tell(const Register& reg, Json& entry) const = 0;

 private:
  Step stepOn(Json& entry) override {
    const auto transport = findTransport(keeper, chip);
    const auto& registers = transport->regFileHelper().csvRegFile()->registers();
    if (at >= registers.size()) return Step::ended;
    return tell(registers[at++], entry) ? Step::made : Step::leftOut;
  }
};

class HardwareEntries : public MapEntries {
 public:
  using MapEntries::MapEntries;

 private:
  bool tell(const Register& reg, Json& entry) const override {
    const auto shadowSm = keeper.shadowSm(chip);
    const auto why = description().transport.whyNotRead(reg);
    entry = {{"name", reg.name.c_str()},   {"address", reg.address},
             {"width", reg.width},         {"type", Register::regTypeToString(reg.type)},
             {"writeable", reg.writeable}, {"readable", !why.has_value()}};
    if (why) entry["why"] = *why;
    if (description().readChanges.contains(reg.name.c_str())) entry["read_changes"] = true;
    entry["configured"] = shadowSm && shadowSm->regConfig().has(reg.address);
    return true;
  }
};

// Those that have fields.
class WantedEntries : public MapEntries {
 public:
  using MapEntries::MapEntries;

 private:
  bool tell(const Register& reg, Json& entry) const override {
    const auto shadowSm = keeper.shadowSm(chip);
    const uint32_t* const wanted = shadowSm ? shadowSm->regConfig().find(reg.address) : nullptr;
    if (!wanted) return false;
    entry = {{"name", reg.name.c_str()}, {"address", reg.address},
             {"width", reg.width},       {"type", Register::regTypeToString(reg.type)},
             {"wanted", *wanted},        {"written", shadowSm->regStatus()(reg.address)}};
    const auto verified = keeper.verification(chip)->verified(reg);
    entry["verified"] = verified.mask;
    if (verified.mask == 0) entry["why"] = verified.whyNot;
    if (description().readChanges.contains(reg.name.c_str())) entry["read_changes"] = true;
    return true;
  }
};

}  // namespace

Json Requests::list(Call& call, std::unique_ptr<Entries> entries) {
  call.asker.list(std::make_unique<ListAnswer>(call.id(), call.limit(), std::move(entries)));
  call.answersLater = true;
  return {};
}

Json Requests::chipList(Call& call) {
  return list(call, std::make_unique<ChipEntries>(
                        keeper_, call.optionalText("from").value_or(""),
                        [this](const std::string& chip) { return chipJson(chip); }));
}

Json Requests::chipRegisters(Call& call) {
  const std::string chip = call.text("chip");
  findTransport(keeper_, chip);
  return list(call, std::make_unique<WantedEntries>(keeper_, chip, call.from()));
}

Json Requests::fieldList(Call& call) {
  const std::string chip = call.text("chip");
  const auto only = call.optionalText("register");
  requireChip(keeper_, chip);
  if (!keeper_.description(chip)) throw RequestError("notUp", keeper_.health(chip).reason);
  return list(call, std::make_unique<FieldEntries>(keeper_, chip, call.from(), only));
}

Json Requests::registerList(Call& call) {
  const std::string chip = call.text("chip");
  findChip(keeper_, chip);
  return list(call, std::make_unique<RegisterEntries>(keeper_, chip, call.from()));
}

Json Requests::hwList(Call& call) {
  const std::string chip = call.text("chip");
  findTransport(keeper_, chip);
  return list(call, std::make_unique<HardwareEntries>(keeper_, chip, call.from()));
}

Json Requests::stats(Call& call) {
  using Reading = Orb::CounterReading;
  const auto tell = [](const Reading& counter) -> Json {
    return {{"owner", counter.owner}, {"name", counter.name}, {"value", counter.value}};
  };
  return list(call,
              std::make_unique<CopiedEntries<Reading>>(Orb::counterReadings(), tell, call.from()));
}

}  // namespace Board
