#include "KoruRegFile/SystemChipStatusSm.h"

#include <fmt/format.h>

#include <stdexcept>
#include <vector>

#include "Orb/Assert.h"
#include "Orb/EntityType.h"
#include "Orb/Trace.h"

namespace KoruRegFile {

namespace {

constexpr int lifecycleLevel = 1;
constexpr size_t mostStrayFieldsTold = 5;
Orb::TraceHandle trace("SystemChipStatusSmBase");
Orb::TraceHandle fieldKeysTrace("fieldKeys");

// What a hook has made, if it is what was asked for.
template <class T>
Orb::Ptr<T> made(Orb::Ptr<T> object, const char* what, const Orb::String& chipName) {
  if (!object) throw std::runtime_error(fmt::format("chip {}: no {} was made", chipName, what));
  if (object->name() != chipName) {
    throw std::runtime_error(
        fmt::format("chip {}: the {} made for it is called {}", chipName, what, object->name()));
  }
  return object;
}

// A reactor that somebody may still hold hears of nothing any more.
template <class Reactor>
void silence(const Orb::Ptr<Reactor>& reactor) {
  if (reactor) reactor->hasNotificationActiveIs(false);
}

// A field is written where its key says. Whoever forgets to set the keys, which count 0, 1, 2, ...
// then, hears of the fields that end up in other registers than their own.
void tellStrayFields(const LogicalChip& chip, const TransportMethod& transport) {
  if (!transport.implPtr()) return;
  const RegFileHelper& map = transport.regFileHelper();
  size_t count = 0;
  for (const auto& [name, field] : chip.physicalField()) {
    const Orb::String& own = name.regName().name();
    if (!map.hasRegName(own)) continue;
    const uint32_t address = map.findRegisterByName(own).address;
    if (address == field.key().address() || ++count > mostStrayFieldsTold) continue;
    ORB_TRACE(fieldKeysTrace, 0,
              "chip {}: field {}.{} is written to the register at {:#x}, as its "
              "key says, and not to {}, which is at {:#x}",
              chip.name(), own, name.name(), field.key().address(), own, address);
  }
  if (count > mostStrayFieldsTold) {
    ORB_TRACE(fieldKeysTrace, 0, "chip {}: so are {} more", chip.name(),
              count - mostStrayFieldsTold);
  }
}

}  // namespace

SystemChipStatusSmBase::SystemChipStatusSmBase(
    const Orb::Ptr<OrbPool::EntityManager>& shmemEntityManager,
    const Orb::Ptr<const PossibleSystemStatus>& systemStatus,
    const Orb::Ptr<LogicalModel>& logicalModel, const Orb::Ptr<PhysicalModel>& physicalModel)
    : shmemEntityManager_(shmemEntityManager),
      logicalModel_(logicalModel),
      physicalModel_(physicalModel) {
  if (!logicalModel || !physicalModel) {
    throw std::invalid_argument("a system chip status reactor needs both models");
  }
  if (!systemStatus) return;
  systemStatus_.emplace(systemStatus, *this);
  systemStatus_->hasNotificationActiveIs(true);
}

SystemChipStatusSmBase::~SystemChipStatusSmBase() = default;

Orb::Ptr<const PossibleSystemStatus> SystemChipStatusSmBase::systemStatus() const {
  return systemStatus_ ? systemStatus_->notifier() : nullptr;
}

void SystemChipStatusSmBase::hasNotificationActiveIs(bool active) {
  if (systemStatus_) systemStatus_->hasNotificationActiveIs(active);
}

void SystemChipStatusSmBase::handleSystemChipStatus() {
  ORB_TRACE(trace, lifecycleLevel, "handleSystemChipStatus");
  const auto keep = Orb::keepAlive(this);
  const auto status = systemStatus();
  if (!status) return;
  std::vector<Orb::String> names;
  for (const auto& [name, chipStatus] : status->chipStatus()) names.push_back(name);
  for (const Orb::String& name : names) {
    if (status->chipStatusHas(name)) handleSystemChipStatus(name);
  }
}

void SystemChipStatusSmBase::handleSystemChipStatus(const Orb::String& chipName) {
  const auto keep = Orb::keepAlive(this);
  const auto status = systemStatus();
  const bool present = !status || status->chipStatusHas(chipName);
  ORB_TRACE(trace, lifecycleLevel, "ChipStatusSmBase::handleSystemChipStatuschipName:{}{}",
            chipName, present ? ", add" : ", del");
  if (!present) return removeChip(chipName);
  ORB_ASSERT(status, "systemStatus()", "there is no system status to have chip {}", chipName);
  ORB_ASSERT(status->chipStatus(chipName), "chipStatus", "chip {} has no status", chipName);
  addChip(chipName);
}

// The hooks, and whoever is told of the models or of the first writes, may have the chip removed,
// or removed and added again. What has been made meanwhile for the chip that went is dropped then.

void SystemChipStatusSmBase::addChip(const Orb::String& chipName) {
  if (!logicalModel_->chip(chipName)) addLogicalChip(chipName);
  if (!logicalModel_->chip(chipName)) return;
  if (!physicalModel_->transport(chipName)) addTransport(chipName);
  if (!physicalModel_->transport(chipName)) return;
  replaceShadowSm(chipName);
}

bool SystemChipStatusSmBase::isThere(const Orb::String& chipName) const {
  const auto status = systemStatus();
  return status && status->chipStatusHas(chipName);
}

void SystemChipStatusSmBase::addLogicalChip(const Orb::String& chipName) {
  const auto chip = made(createLogicalChip(chipName), "logical chip", chipName);
  // (The hook may have put it into the model already.)
  const Orb::Ptr<LogicalChip> present = logicalModel_->chip(chipName);
  if (!isThere(chipName) || (present && present != chip)) return;
  logicalModel_->chipIs(chip);
  const auto isCurrent = [&] { return logicalModel_->chip(chipName) == chip; };
  if (isCurrent()) chip->readyIs(true);
  if (!isCurrent()) return;
  const auto writeSm = logicalWriteSmFactory(chip);
  if (!isCurrent()) return silence(writeSm);
  logicalModel_->writeSmIs(writeSm);
}

void SystemChipStatusSmBase::addTransport(const Orb::String& chipName) {
  const Orb::Ptr<LogicalChip> chip = logicalModel_->chip(chipName);
  const auto transport = made(createTransport(chipName), "transport", chipName);
  const bool isCurrent = isThere(chipName) && logicalModel_->chip(chipName) == chip;
  if (isCurrent && !physicalModel_->transport(chipName)) physicalModel_->transportIs(transport);
}

void SystemChipStatusSmBase::replaceShadowSm(const Orb::String& chipName) {
  const Orb::Ptr<LogicalChip> chip = logicalModel_->chip(chipName);
  const Orb::Ptr<TransportMethod> transport = physicalModel_->transport(chipName);
  ORB_ASSERT(chip->shadowFieldsConfig(), "lChip->shadowFieldsConfig()",
             "chip {} has not mounted its configuration table", chipName);
  ORB_ASSERT(chip->shadowFieldsStatus(), "lChip->shadowFieldsStatus()",
             "chip {} has not mounted its status table", chipName);
  if (transport) tellStrayFields(*chip, *transport);
  const auto shadowSm =
      shadowFieldsSmFactory(chip->shadowFieldsConfig(), chip->shadowFieldsStatus(), transport,
                            physicalModel_->simulate());
  if (logicalModel_->chip(chipName) != chip || physicalModel_->transport(chipName) != transport) {
    return silence(shadowSm);
  }
  silence(physicalModel_->shadowSm(chipName));
  physicalModel_->shadowSmIs(shadowSm);
}

void SystemChipStatusSmBase::removeChip(const Orb::String& chipName) {
  if (const Orb::Ptr<LogicalChip> chip = logicalModel_->chip(chipName)) chip->readyIs(false);
  silence(logicalModel_->writeSm(chipName));
  logicalModel_->writeSmDel(chipName);
  logicalModel_->chipDel(chipName);
  silence(physicalModel_->shadowSm(chipName));
  physicalModel_->shadowSmDel(chipName);
  physicalModel_->transportDel(chipName);
}

const Orb::EntityType& SystemChipStatusSmBase::entityType() {
  using T = SystemChipStatusSmBase;
  using OneChip = void (T::*)(const Orb::String&);
  static const auto type =
      Orb::EntityTypeOf<T>("KoruRegFile::SystemChipStatusSmBase")
          .attribute("shmemEntityManager", &T::shmemEntityManager)
          .attribute("systemStatus", &T::systemStatus)
          .attribute("logicalModel", &T::logicalModel)
          .attribute("physicalModel", &T::physicalModel)
          .attribute("initialized", &T::initialized)
          .operation("handleSystemChipStatus",
                     static_cast<void (T::*)()>(&T::handleSystemChipStatus), {})
          .operation("handleSystemChipStatus", static_cast<OneChip>(&T::handleSystemChipStatus),
                     {"chipName"})
          .operation("createLogicalChip", &T::createLogicalChip, {"chipName"})
          .operation("createTransport", &T::createTransport, {"chipName"});
  return type;
}

}  // namespace KoruRegFile
