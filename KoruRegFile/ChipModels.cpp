#include "KoruRegFile/ChipModels.h"

#include <stdexcept>

#include "Orb/EntityType.h"

namespace KoruRegFile {

namespace {

template <class T>
const T& existing(const Orb::Ptr<T>& object) {
  if (!object) throw std::invalid_argument(T::entityType().name() + " expected, got none");
  return *object;
}

}  // namespace

Orb::Ptr<LogicalModel> logicalModelFactory() { return Orb::make<LogicalModel>(); }

Orb::Ptr<PhysicalModel> physicalModelFactory() { return Orb::make<PhysicalModel>(); }

Orb::Ptr<LogicalModel> LogicalModel::LogicalModelIs() { return logicalModelFactory(); }

const Orb::EntityType& LogicalModel::entityType() {
  using T = LogicalModel;
  static const auto type =
      Orb::EntityTypeOf<T>("KoruRegFile::LogicalModel")
          .attribute("chip", static_cast<const Chips& (T::*)() const>(&T::chip))
          .attribute("writeSm", static_cast<const WriteSms& (T::*)() const>(&T::writeSm))
          .operation("chipIs", &T::chipIs, {"chip"})
          .operation("chipDel", &T::chipDel, {"name"})
          .operation("chipDelAll", &T::chipDelAll, {})
          .operation("writeSmIs", &T::writeSmIs, {"writeSm"})
          .operation("writeSmDel", &T::writeSmDel, {"name"})
          .operation("writeSmDelAll", &T::writeSmDelAll, {});
  return type;
}

void LogicalModel::chipIs(const Orb::Ptr<LogicalChip>& chip) {
  collectionIs(chip_, existing(chip).name(), chip, &Notifiee::onChip);
}

void LogicalModel::chipDel(const Orb::String& name) {
  collectionDel(chip_, name, &Notifiee::onChip);
}

void LogicalModel::chipDelAll() { collectionDelAll(chip_, &Notifiee::onChip); }

void LogicalModel::writeSmIs(const Orb::Ptr<LogicalWriteSm>& writeSm) {
  collectionIs(writeSm_, existing(writeSm).logicalChip()->name(), writeSm, &Notifiee::onWriteSm);
}

void LogicalModel::writeSmDel(const Orb::String& name) {
  collectionDel(writeSm_, name, &Notifiee::onWriteSm);
}

void LogicalModel::writeSmDelAll() { collectionDelAll(writeSm_, &Notifiee::onWriteSm); }

Orb::Ptr<PhysicalModel> PhysicalModel::PhysicalModelIs() { return physicalModelFactory(); }

const Orb::EntityType& PhysicalModel::entityType() {
  using T = PhysicalModel;
  static const auto type =
      Orb::EntityTypeOf<T>("KoruRegFile::PhysicalModel")
          .attribute("transport", static_cast<const Transports& (T::*)() const>(&T::transport))
          .attribute("shadowSm", static_cast<const ShadowSms& (T::*)() const>(&T::shadowSm))
          .attribute("simulate", &T::simulate)
          .operation("transportIs", &T::transportIs, {"transport"})
          .operation("transportDel", &T::transportDel, {"name"})
          .operation("transportDelAll", &T::transportDelAll, {})
          .operation("shadowSmIs", &T::shadowSmIs, {"shadowSm"})
          .operation("shadowSmDel", &T::shadowSmDel, {"name"})
          .operation("shadowSmDelAll", &T::shadowSmDelAll, {})
          .operation("simulateIs", &T::simulateIs, {"simulate"});
  return type;
}

void PhysicalModel::transportIs(const Orb::Ptr<TransportMethod>& transport) {
  collectionIs(transport_, existing(transport).name(), transport, &Notifiee::onTransport);
}

void PhysicalModel::transportDel(const Orb::String& name) {
  collectionDel(transport_, name, &Notifiee::onTransport);
}

void PhysicalModel::transportDelAll() { collectionDelAll(transport_, &Notifiee::onTransport); }

void PhysicalModel::shadowSmIs(const Orb::Ptr<ShadowFieldsSm>& shadowSm) {
  collectionIs(shadowSm_, existing(shadowSm).name(), shadowSm, &Notifiee::onShadowSm);
}

void PhysicalModel::shadowSmDel(const Orb::String& name) {
  collectionDel(shadowSm_, name, &Notifiee::onShadowSm);
}

void PhysicalModel::shadowSmDelAll() { collectionDelAll(shadowSm_, &Notifiee::onShadowSm); }

}  // namespace KoruRegFile
