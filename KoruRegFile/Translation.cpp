#include "KoruRegFile/Translation.h"

#include "Orb/Assert.h"
#include "Orb/EntityType.h"

namespace KoruRegFile {

Orb::Ptr<Translation> translationFactory(const Orb::String& name) {
  return Orb::make<Translation>(name);
}

Orb::Ptr<Translation> Translation::TranslationIs(const Orb::String& name) {
  return translationFactory(name);
}

Translation::Translation(const Orb::String& name) : name_(name) {}

const Orb::EntityType& Translation::entityType() {
  using T = Translation;
  static const auto type =
      Orb::EntityTypeOf<T>("KoruRegFile::Translation")
          .attribute("name", &T::name)
          .attribute("logicalToPhysical",
                     static_cast<const ToPhysical& (T::*)() const>(&T::logicalToPhysical))
          .attribute("physicalToLogical",
                     static_cast<const ToLogical& (T::*)() const>(&T::physicalToLogical))
          .operation("logicalToPhysicalIs", &T::logicalToPhysicalIs, {"key", "value"})
          .operation("logicalToPhysicalDel", &T::logicalToPhysicalDel, {"key"})
          .operation("logicalToPhysicalDelAll", &T::logicalToPhysicalDelAll, {})
          .operation("physicalToLogicalIs", &T::physicalToLogicalIs, {"key", "value"})
          .operation("physicalToLogicalDel", &T::physicalToLogicalDel, {"key"})
          .operation("physicalToLogicalDelAll", &T::physicalToLogicalDelAll, {})
          .operation("populate", &T::populate, {"lrName", "lfName", "prName", "pfName"})
          .operation("getPhysicalFieldName", &T::getPhysicalFieldName, {"lfName"})
          .operation("getLogicalFieldName", &T::getLogicalFieldName, {"pfName"});
  return type;
}

void Translation::logicalToPhysicalIs(const LogicalFieldName& key, const PhysicalFieldName& value) {
  collectionIs(logicalToPhysical_, key, value, &Notifiee::onLogicalToPhysical);
}

void Translation::logicalToPhysicalDel(const LogicalFieldName& key) {
  collectionDel(logicalToPhysical_, key, &Notifiee::onLogicalToPhysical);
}

void Translation::logicalToPhysicalDelAll() {
  collectionDelAll(logicalToPhysical_, &Notifiee::onLogicalToPhysical);
}

void Translation::physicalToLogicalIs(const PhysicalFieldName& key, const LogicalFieldName& value) {
  collectionIs(physicalToLogical_, key, value, &Notifiee::onPhysicalToLogical);
}

void Translation::physicalToLogicalDel(const PhysicalFieldName& key) {
  collectionDel(physicalToLogical_, key, &Notifiee::onPhysicalToLogical);
}

void Translation::physicalToLogicalDelAll() {
  collectionDelAll(physicalToLogical_, &Notifiee::onPhysicalToLogical);
}

void Translation::populate(const Orb::String& lrName, const Orb::String& lfName,
                           const Orb::String& prName, const Orb::String& pfName) {
  const auto keep = Orb::keepAlive(this);
  const LogicalFieldName logical = logicalFieldName(lrName, lfName);
  const PhysicalFieldName physical = physicalFieldName(prName, pfName);
  logicalToPhysicalIs(logical, physical);
  physicalToLogicalIs(physical, logical);
}

const PhysicalFieldName& Translation::getPhysicalFieldName(const LogicalFieldName& lfName) const {
  const PhysicalFieldName* found = logicalToPhysical_.find(lfName);
  ORB_ASSERT(found, "logicalToPhysicalHas( lfName )", "No physicalField name mapping to {}",
             Orb::valueToStrep(lfName));
  return *found;
}

const LogicalFieldName& Translation::getLogicalFieldName(const PhysicalFieldName& pfName) const {
  const LogicalFieldName* found = physicalToLogical_.find(pfName);
  ORB_ASSERT(found, "physicalToLogicalHas( pfName )", "No logicalField mapping to {}",
             Orb::valueToStrep(pfName));
  return *found;
}

}  // namespace KoruRegFile
