// What a keeper does with its chip because somebody, or the chip itself, asks for it.

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "Orb/Trace.h"
#include "board/chips/internal/ChipKeeper.h"
#include "board/chips/internal/Endings.h"
#include "board/devices/BusTap.h"

namespace Board {

namespace {

Orb::TraceHandle trace("korud");

}  // namespace

void ChipKeeper::busRecorderIs(std::shared_ptr<BusRecorder> recorder) {
  busRecorder_ = std::move(recorder);
  if (!isTapped_ && transport_ && transport_->implPtr()) tapBus();
}

// In front of what makes the accesses, behind what has them wait. It stays until the device is
// opened anew.
void ChipKeeper::tapBus() {
  const auto wrap = [this](std::unique_ptr<KoruRegFile::BaseTransportMethodImpl> inner) {
    return std::make_unique<BusTap>(std::move(inner), busRecorder_);
  };
  posting_ ? posting_->innerWrap(wrap) : transport_->implPtrWrap(wrap);
  isTapped_ = true;
}

FieldWriter::Target ChipKeeper::target() const {
  const auto chip = sm_.logicalModel()->chip(description_.name);
  if (!chip) throw std::runtime_error("the chip is not up: " + health_.reason);
  const auto& physical = *sm_.physicalModel();
  return {chip, physical.shadowSm(description_.name), physical.transport(description_.name)};
}

WritePlan ChipKeeper::plan(const std::vector<FieldWrite>& writes, RegisterOrder order) const {
  return FieldWriter::plan(target(), writes, order);
}

void ChipKeeper::write(const WritePlan& plan, KoruRegFile::AccessCallback done) {
  ChipHistory::Together together(*history_);
  for (const FieldChange& change : plan.fields) {
    if (!isSentOnce(change.field->kind) || change.value == 0) continue;
    history_->fieldChanged(*change.field, 0, change.value);
  }
  try {
    writer_.write(target(), plan, std::move(done));
  } catch (...) {
    together.forget();
    throw;
  }
}

// One that goes on already, or is due, will do.
void ChipKeeper::rewrite(KoruRegFile::AccessCallback done) {
  if (!target().shadowSm) throw std::runtime_error("the chip is not up: " + health_.reason);
  passEnds_.push_back(std::move(done));
  if (!pass_) rewriteAnyway("");
}

void ChipKeeper::rewrite(std::vector<uint32_t> addresses, KoruRegFile::AccessCallback done) {
  const ChipHistory::Because because(*history_, WrittenFor::rewrite);
  rewriteRegisters(std::move(addresses), std::move(done));
}

void ChipKeeper::rewriteRegisters(std::vector<uint32_t> addresses,
                                  KoruRegFile::AccessCallback done) {
  const auto [chip, shadowSm, transport] = target();
  if (!shadowSm) throw std::runtime_error("the chip is not up: " + health_.reason);
  std::sort(addresses.begin(), addresses.end());
  addresses.erase(std::unique(addresses.begin(), addresses.end()), addresses.end());
  std::stable_sort(addresses.begin(), addresses.end(), [&, method = transport](auto a, auto b) {
    return isBefore(method->regAddrToName(a).c_str(), method->regAddrToName(b).c_str());
  });
  const auto endings = std::make_shared<Endings>(std::move(done));
  for (const uint32_t address : addresses) {
    endings->write(transport, transport->regAddrToName(address), shadowSm->regConfig()(address));
  }
  endings->close();
}

// Now, whatever is waited for.
void ChipKeeper::rewriteAnyway(const std::string& why) {
  rewriteDue_ = true;
  updateMark();
  timer_.reset();
  if (!why.empty()) ORB_TRACE(trace, 0, "chip {}: {}; rewritten", description_.name, why);
  startPass();
}

void ChipKeeper::deviceAppeared() {
  if (bringingUp_ || pass_) return;
  if (!sm_.physicalModel()->shadowSm(description_.name)) {
    timer_.reset();
    return tryToBringUp();
  }
  ORB_TRACE(trace, 0, "chip {}: there is a new {}; rewritten", description_.name,
            description_.transport.device);
  rewriteDue_ = true;
  updateMark();
  timer_.reset();
  reopen();
}

void ChipKeeper::fieldsAreTold(const KoruRegFile::LogicalChip& chip) {
  values_.clear();
  for (const Field& field : description_.fields) {
    values_.push_back(chip.fieldGetLastWritten(field.logicalRegister, field.logicalField));
  }
}

void ChipKeeper::fieldChanged(const KoruRegFile::LogicalChip& chip,
                              const KoruRegFile::LogicalFieldName& name) {
  const Field* const field = index_.field(name.regName().name().view(), name.name().view());
  if (!field) return;
  uint32_t& known = values_[static_cast<size_t>(field - description_.fields.data())];
  const uint32_t value = chip.logicalField(name).value();
  history_->fieldChanged(*field, std::exchange(known, value), value);
}

Health ChipKeeper::health() const {
  Health health = health_;
  if (!differing_) return health;
  health.differing = differing_->count();
  health.tableReaders = differing_->readers();
  return health;
}

void ChipKeeper::startUpkeep() {
  const auto [chip, shadowSm, transport] = target();
  if (!shadowSm) return;
  differing_ = std::make_unique<FieldsDiffering>(shadowSm->shadowFieldsConfig(),
                                                 shadowSm->shadowFieldsStatus());
  if (description_.upkeep == Upkeep()) return;
  readBack_ = std::make_unique<ReadBack>(
      description_, verification_, transport, shadowSm,
      ReadBack::Callbacks{[this] { return isIdle(); },
                          [this](const Drift& drift) { drifted(drift); }, [this] { wasReset(); }});
}

bool ChipKeeper::isIdle() const {
  return !bringingUp_ && !pass_ && !timer_ && health_.inFlight == 0 && !rewriteDue_;
}

void ChipKeeper::drifted(const Drift& drift) {
  ++health_.drifted;
  if (drift_.isDue()) {
    ORB_TRACE(trace, 0, "chip {}: register '{}' held {:#x} in place of {:#x}; written again",
              description_.name, drift.reg, drift.found, drift.written);
  }
  const ChipHistory::Because because(*history_, WrittenFor::drift);
  rewriteRegisters({drift.address}, [](const KoruRegFile::AccessOutcome&) {});
  callbacks_.drifted(drift);
}

void ChipKeeper::wasReset() {
  ++health_.resets;
  const std::string why = fmt::format("register '{}' holds its reset value; the chip was reset",
                                      description_.upkeep.canary->reg);
  whyRewritten_ = WrittenFor::reset;
  rewriteAnyway(why);
  callbacks_.wasReset(why);
}

}  // namespace Board
