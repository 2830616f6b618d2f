#include "board/chips/internal/FieldWriter.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <memory>
#include <stdexcept>
#include <utility>

#include "board/chips/internal/Endings.h"

namespace Board {

namespace {

using KoruRegFile::ShadowFieldKey;
using Target = FieldWriter::Target;

bool isChange(const FieldChange& change) {
  return !isSentOnce(change.field->kind) && change.value != change.was;
}

// A field that is sent once is sent when it is not 0.
bool isSent(const FieldChange& change) {
  return isSentOnce(change.field->kind) && change.value != 0;
}

uint32_t composed(const FieldChange& change, uint32_t value, uint32_t fieldValue) {
  const Bits& bits = change.field->physical;
  return KoruRegFile::bitStreamSet(value, bits.start, bits.size, fieldValue);
}

// The place of a register in the map.
size_t positionOf(const KoruRegFile::RegisterFile& map, const RegisterChange& change) {
  return static_cast<size_t>(&map.findRegisterByName(change.name.view()) - map.registers().data());
}

// The register goes out with the fields that are sent once, and holds the others from then on.
void send(const Target& target, const RegisterChange& change, Endings& endings) {
  const uint32_t held = target.shadowSm->regConfig()(change.address);
  target.shadowSm->regStatusIs(change.address, held);
  endings.write(target.transport, change.name,
                (held & ~change.sentOnce) | (change.to & change.sentOnce));
}

// Keeps the reactor from hearing of changes, and hears of them in its place.
class Changes : public KoruRegFile::ShadowFieldsConfig::Notifiee {
 public:
  explicit Changes(const Target& target)
      : Notifiee(target.chip->shadowFieldsConfig()), shadowSm_(target.shadowSm) {
    if (!shadowSm_) return;
    hasNotificationActiveIs(true);
    shadowSm_->hasNotificationActiveIs(false);
  }
  ~Changes() override { end(); }
  Changes(const Changes&) = delete;
  Changes& operator=(const Changes&) = delete;
  void onField(const ShadowFieldKey& key) override { keys_[key.address()].push_back(key); }

  // From here on the reactor hears of changes again, and knows of those that it missed.
  void end() {
    if (!shadowSm_) return;
    for (const auto& [address, keys] : keys_) {
      uint32_t value = shadowSm_->regConfig()(address);
      for (const ShadowFieldKey& key : keys) {
        value = KoruRegFile::bitStreamSet(value, key.start(), key.size(),
                                          notifier()->field(key).value());
      }
      shadowSm_->regConfigIs(address, value);
    }
    hasNotificationActiveIs(false);
    std::exchange(shadowSm_, nullptr)->hasNotificationActiveIs(true);
  }
  // The fields of a register that have changed; each is given once.
  std::vector<ShadowFieldKey> take(uint32_t address) {
    const auto found = keys_.extract(address);
    return found.empty() ? std::vector<ShadowFieldKey>() : std::move(found.mapped());
  }
  const std::map<uint32_t, std::vector<ShadowFieldKey>>& left() const { return keys_; }

 private:
  Orb::Ptr<KoruRegFile::ShadowFieldsSm> shadowSm_;
  std::map<uint32_t, std::vector<ShadowFieldKey>> keys_;
};

void writeTable(const Target& target, const WritePlan& plan, Endings& endings) {
  for (const FieldChange& change : plan.fields) {
    const Field& field = *change.field;
    if (isSentOnce(field.kind)) continue;
    endings.attempt(
        [&] { target.chip->fieldWrite(field.logicalRegister, field.logicalField, change.value); });
  }
}

void writeRegisters(const Target& target, const WritePlan& plan, Changes& changes,
                    Endings& endings) {
  if (!target.shadowSm) return;
  const auto tell = [&](const std::vector<ShadowFieldKey>& keys) {
    for (const ShadowFieldKey& key : keys) {
      endings.attempt([&] { target.shadowSm->handleShadowField(key); });
    }
  };
  for (const RegisterChange& reg : plan.registers) {
    if (reg.sentOnce != 0) endings.attempt([&] { send(target, reg, endings); });
    tell(changes.take(reg.address));
  }
  // Reactors may have changed others.
  for (const auto& [address, keys] : changes.left()) tell(keys);
}

}  // namespace

WritePlan FieldWriter::plan(const Target& target, const std::vector<FieldWrite>& writes,
                            RegisterOrder order) {
  WritePlan plan;
  std::map<const Field*, size_t> places;
  for (const auto& [field, value] : writes) {
    if (value > (uint64_t{1} << field->logical.size) - 1) {
      throw std::invalid_argument(fmt::format("{:#x} has more than the {} bits of field {}.{}",
                                              value, field->logical.size, field->logicalRegister,
                                              field->logicalField));
    }
    const auto [place, isNew] = places.emplace(field, plan.fields.size());
    if (isNew) {
      const uint32_t was =
          target.chip->fieldGetLastWritten(field->logicalRegister, field->logicalField);
      plan.fields.push_back({field, was, value});
    }
    plan.fields[place->second].value = value;
  }
  if (!target.shadowSm) return plan;
  std::map<uint32_t, size_t> registers;
  for (const FieldChange& change : plan.fields) {
    if (!isChange(change) && !isSent(change)) continue;
    const uint32_t address = change.field->address;
    const auto [place, isNew] = registers.emplace(address, plan.registers.size());
    if (isNew) {
      plan.registers.push_back({address, change.field->physicalRegister,
                                target.shadowSm->regStatus()(address),
                                target.shadowSm->regConfig()(address)});
    }
    RegisterChange& reg = plan.registers[place->second];
    reg.to = composed(change, reg.to, change.value);
    if (isSent(change)) reg.sentOnce |= composed(change, 0, UINT32_MAX);
  }
  std::erase_if(plan.registers,
                [](const RegisterChange& reg) { return reg.from == reg.to && reg.sentOnce == 0; });
  if (order == RegisterOrder::ofMap && target.transport) {
    const auto& map = *target.transport->regFileHelper().csvRegFile();
    std::sort(plan.registers.begin(), plan.registers.end(),
              [&](const RegisterChange& a, const RegisterChange& b) {
                return positionOf(map, a) < positionOf(map, b);
              });
  }
  return plan;
}

// One value that changes needs no keeping: the table has it or not.
void FieldWriter::keep(const WritePlan& plan) {
  std::vector<KeptField> kept;
  for (const FieldChange& change : plan.fields) {
    if (!isChange(change)) continue;
    kept.push_back({{change.field->key(), change.value}, change.field->physicalRegister.c_str()});
  }
  if (kept.size() < 2) return;
  files_.togetherIs(kept);
  isLeft_ = true;
}

void FieldWriter::write(const Target& target, const WritePlan& plan,
                        KoruRegFile::AccessCallback done) {
  if (isWriting_) throw std::logic_error("fields of this chip are being written already");
  const bool sends = std::any_of(plan.fields.begin(), plan.fields.end(), isSent);
  if (sends && (!target.transport || !target.shadowSm)) {
    throw std::runtime_error("a field that is sent once needs the chip, which is not up");
  }
  if (const std::string why = whyLeft(); !why.empty()) throw std::runtime_error(why);
  keep(plan);
  const auto endings = std::make_shared<Endings>(std::move(done));
  {
    struct Writing {
      explicit Writing(bool& flag) : flag_(flag) { flag_ = true; }
      ~Writing() { flag_ = false; }
      bool& flag_;
    } const writing(isWriting_);
    Changes changes(target);
    writeTable(target, plan, *endings);
    changes.end();
    whyLeft();
    writeRegisters(target, plan, changes, *endings);
  }
  endings->close();
}

std::string FieldWriter::whyLeft() {
  if (!isLeft_) return "";
  try {
    files_.togetherDel();
    isLeft_ = false;
    return "";
  } catch (const std::exception& e) {
    return e.what();
  }
}

}  // namespace Board
