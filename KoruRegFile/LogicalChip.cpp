#include "KoruRegFile/LogicalChip.h"

#include <fmt/format.h>

#include <stdexcept>
#include <vector>

#include "Orb/Assert.h"
#include "Orb/EntityType.h"
#include "Orb/Trace.h"

namespace KoruRegFile {

namespace {

constexpr int detailLevel = 2;
Orb::TraceHandle trace("LogicalChip");

// With fewer, asking ahead for what lies in a cache anyway costs more than it saves.
constexpr size_t fieldsBeyondCaches = 2000;

// Shifts count modulo 64. A field that ends at bit 63 is therefore OR-ed into the bits that are
// there instead of replacing them, and one that would reach further wraps.
uint64_t left(uint64_t bits, unsigned count) { return bits << (count & 63); }
uint64_t right(uint64_t bits, unsigned count) { return bits >> (count & 63); }

// `reg` with the field's bits replaced by the low bits of `value`.
uint64_t insert(uint64_t reg, unsigned start, unsigned size, uint32_t value) {
  const unsigned end = start + size;
  const uint64_t field = right(left(value, 64 - size), 64 - end);
  const uint64_t above = left(right(reg, end), end);
  const uint64_t below = start == 0 ? 0 : right(left(reg, 64 - start), 64 - start);
  return field | above | below;
}

uint32_t extract(uint64_t reg, unsigned start, unsigned size) {
  return static_cast<uint32_t>(right(left(reg, 64 - (start + size)), 64 - size));
}

// The entity mounted at `path`, as what it is.
template <class T>
Orb::Ptr<T> mountedAs(const OrbPool::EntityManager& manager, const Orb::String& path) {
  auto table = Orb::dynamic_pointer_cast<T>(manager.entity(path));
  ORB_ASSERT(table, "table", "{} is no {}", path, T::entityType().name());
  return table;
}

}  // namespace

Orb::Ptr<LogicalChip> logicalChipFactory(const Orb::String& name) {
  return Orb::make<LogicalChip>(name);
}

Orb::Ptr<LogicalChip> LogicalChip::LogicalChipIs(const Orb::String& name) {
  return logicalChipFactory(name);
}

LogicalChip::LogicalChip(const Orb::String& name) : name_(name) { handleInitialized(); }

void LogicalChip::handleInitialized() {
  translationIs();
  attributeIs(initialized_, true, &Notifiee::onInitialized);
}

void LogicalChip::populateLogicalField(const Orb::String& regName, const Orb::String& fieldName,
                                       uint8_t start, uint8_t size, uint32_t value) {
  ORB_ASSERT(!ready(), "!ready()", "Populating fields after chip ready is not allowed!");
  const auto keep = Orb::keepAlive(this);
  const LogicalField field(translation()->logicalFieldName(regName, fieldName), start, size, value);
  const LogicalRegisterName& lrName = field.name().regName();
  LogicalRegister reg = regCollHas(lrName) ? regColl(lrName) : LogicalRegister(lrName);
  reg.fieldIs(field.name(), true);
  reg.valueIs(insert(reg.value(), start, size, value));
  regCollIs(reg);
  logicalFieldIs(field);
}

void LogicalChip::populatePhysicalField(const Orb::String& regName, const Orb::String& fieldName,
                                        uint8_t start, uint8_t size) {
  ORB_ASSERT(!ready(), "!ready()", "Populating fields after chip ready is not allowed!");
  const auto keep = Orb::keepAlive(this);
  const PhysicalFieldName pfName = translation()->physicalFieldName(regName, fieldName);
  PhysicalField field(pfName, start, size);
  const ShadowFieldKey key(physicalFieldCount(), start, size);
  field.keyIs(key);
  attributeIs(physicalFieldCount_, physicalFieldCount() + 1, &Notifiee::onPhysicalFieldCount);
  physicalFieldIs(field);
  shadowToPhysicalNameIs(key, pfName);
}

void LogicalChip::mountShadowFields(const Orb::Ptr<OrbPool::EntityManager>& shmemEntityManager,
                                    const Orb::String& configPath, const Orb::String& statusPath) {
  if (!shmemEntityManager) {
    throw std::invalid_argument("chip " + std::string(name_) +
                                " cannot mount its shadow tables without an entity manager");
  }
  const auto keep = Orb::keepAlive(this);
  const auto group = shmemEntityManager->mountGroup();
  group->collectionDescriptionIs({"field", physicalFieldCount(), false});
  group->mount(ShadowFieldsConfig::entityType().name(), configPath, OrbPool::mountWriter);
  group->mount(ShadowFieldsStatus::entityType().name(), statusPath, OrbPool::mountWriter);
  const auto config = mountedAs<ShadowFieldsConfig>(*shmemEntityManager, configPath);
  shadowFieldsConfigIs(config);
  shadowFieldsStatusIs(mountedAs<ShadowFieldsStatus>(*shmemEntityManager, statusPath));
  group->close();
  // Reactors may change the collection meanwhile.
  std::vector<PhysicalFieldName> names;
  names.reserve(physicalField_.size());
  for (const auto& [pfName, field] : physicalField_) names.push_back(pfName);
  for (const PhysicalFieldName& pfName : names) {
    const PhysicalField* field = physicalField_.find(pfName);
    if (!field) continue;
    static_cast<void>(translation()->getLogicalFieldName(pfName));
    config->fieldIs(ShadowFieldValue(field->key(), 0));
  }
}

const LogicalRegister& LogicalChip::existingRegister(const RegisterNameQuery& query) const {
  ORB_ASSERT(ready(), "ready()", "LogicalChip {} is not populated yet!", name_);
  const LogicalRegister* reg = regColl_.find(query);
  ORB_ASSERT(reg, "regCollHas( lrName )", "LogicalRegister {}-{} is not populated yet!", name_,
             query.name());
  return *reg;
}

const LogicalField& LogicalChip::existingField(const LogicalRegister& reg,
                                               std::string_view fieldName, NameHash hash) const {
  const LogicalField* field = logicalField_.find(FieldNameQuery(reg.name(), fieldName, hash));
  ORB_ASSERT(field && reg.fieldHas(field->name()),
             "lReg.fieldHas( lfName ) && logicalFieldHas( lfName )",
             "LogicalRegister {} does not have field {}", reg.name().fullName(), fieldName);
  return *field;
}

// What a write to a field touches lies scattered over more memory than the caches of a processor
// hold. Asked for piece by piece, each would be waited for in turn. Hence all is asked for ahead,
// in rounds: each needs what the one before has brought. Nothing depends on its success.
template <class RegisterKey, class FieldKey>
void LogicalChip::fieldFetch(const RegisterKey& regKey, const FieldKey& fieldKey) const {
  if (logicalField_.size() < fieldsBeyondCaches) return;
  const Translation::ToPhysical& toPhysical = translation()->logicalToPhysical();
  regColl_.fetch(regKey);
  logicalField_.fetch(fieldKey);
  toPhysical.fetch(fieldKey);

  const auto* reg = regColl_.fetchEntry(regKey);
  const auto* field = logicalField_.fetchEntry(fieldKey);
  const auto* translated = toPhysical.fetchEntry(fieldKey);
  if (!reg || !field || !translated || !shadowFieldsConfig()) return;

  physicalField_.fetch(translated->second);
  reg->second.fetchField();
  reg->first.fetch();
  field->first.fetch();

  const auto* physical = physicalField_.fetchEntry(translated->second);
  reg->second.field().fetch(fieldKey);
  reg->first.fetchText();
  field->first.fetchText();

  reg->second.field().fetchEntry(fieldKey);
  if (physical) shadowFieldsConfig()->fieldFetch(physical->second.key());
}

void LogicalChip::fieldWrite(const Orb::String& regName, const Orb::String& fieldName,
                             uint32_t value) {
  namedWrite(regName, fieldName, value);
}

void LogicalChip::namedWrite(std::string_view regName, std::string_view fieldName, uint32_t value) {
  ORB_TRACE(trace, detailLevel, "LogicalChip::fieldWrite reg: {} field: {} value: {}", regName,
            fieldName, value);
  const auto keep = Orb::keepAlive(this);
  const RegisterNameQuery regQuery(name_, regName);
  const NameHash fieldHash(name_, regName, fieldName);
  fieldFetch(regQuery, fieldHash);
  const LogicalRegister& reg = existingRegister(regQuery);
  write(reg, existingField(reg, fieldName, fieldHash), value);
}

void LogicalChip::write(const LogicalRegister& reg, const LogicalField& field, uint32_t value) {
  // Reactions may delete the field. NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
  const LogicalFieldName name = field.name();
  const uint8_t start = field.start(), size = field.size();
  const uint64_t shape = logicalField_.shape();
  regColl_.own(reg).valueIs(insert(reg.value(), start, size, value));
  if (hasNotifiees()) notify(&Notifiee::onRegColl, LogicalRegisterName(reg.name()));
  ORB_TRACE(trace, detailLevel, "Write field: {} value: {}", name.name(), value);
  if (logicalField_.shape() == shape && field.start() == start && field.size() == size) {
    logicalField_.own(field).valueIs(value);
    notify(&Notifiee::onLogicalField, name);
  } else {  // A reaction has deleted or moved it, which is no reason not to write it as it was.
    logicalFieldIs(LogicalField(name, start, size, value));
  }
}

LogicalFieldHandle LogicalChip::field(const Orb::String& regName,
                                      const Orb::String& fieldName) const {
  const LogicalRegister* reg = regColl_.find(RegisterNameQuery(name_, regName));
  const LogicalField* found =
      reg ? logicalField_.find(FieldNameQuery(reg->name(), fieldName)) : nullptr;
  if (!found || !reg->fieldHas(found->name())) {
    throw std::runtime_error(
        fmt::format("chip '{}' has no field '{}' in a register '{}'", name_, fieldName, regName));
  }
  return {anchor_.anchored(), found->name()};
}

LogicalChip::FoundField LogicalChip::findField(const LogicalFieldName& name) const {
  const LogicalRegister* reg = ready() ? regColl_.find(name.regName()) : nullptr;
  const LogicalField* field = reg && reg->fieldHas(name) ? logicalField_.find(name) : nullptr;
  return {reg, field};
}

bool LogicalChip::handleWrite(const LogicalFieldName& name, uint32_t value) {
  const auto keep = Orb::keepAlive(this);
  fieldFetch(name.regName(), name);
  const auto [reg, field] = findField(name);
  if (!field) return false;
  ORB_TRACE(trace, detailLevel, "LogicalChip::fieldWrite reg: {} field: {} value: {}",
            name.regName().name(), name.name(), value);
  write(*reg, *field, value);
  return true;
}

void LogicalChip::regWrite(const Orb::String& regName, uint64_t value) {
  namedRegWrite(regName, value);
}

void LogicalChip::namedRegWrite(std::string_view regName, uint64_t value) {
  ORB_TRACE(trace, detailLevel, "LogicalChip::regWrite regName: {} value: {}", regName, value);
  const auto keep = Orb::keepAlive(this);
  LogicalRegister reg = existingRegister({name_, regName});
  reg.valueIs(value);
  regCollIs(reg);
  for (const auto& [lfName, member] : reg.field()) {
    LogicalField field = logicalField_(lfName);
    field.valueIs(extract(value, field.start(), field.size()));
    logicalFieldIs(field);
  }
}

uint64_t LogicalChip::regGetLastWritten(const Orb::String& regName) const {
  return namedRegLastWritten(regName);
}

uint64_t LogicalChip::namedRegLastWritten(std::string_view regName) const {
  ORB_TRACE(trace, detailLevel, "LogicalChip::regGetLastWritten regName: {}", regName);
  return existingRegister({name_, regName}).value();
}

uint32_t LogicalChip::fieldGetLastWritten(const Orb::String& regName,
                                          const Orb::String& fieldName) const {
  return namedLastWritten(regName, fieldName);
}

uint32_t LogicalChip::namedLastWritten(std::string_view regName, std::string_view fieldName) const {
  ORB_TRACE(trace, detailLevel, "LogicalChip::fieldGetLastWritten reg: {} field: {}", regName,
            fieldName);
  return existingField(existingRegister({name_, regName}), fieldName,
                       NameHash(name_, regName, fieldName))
      .value();
}

Orb::Ptr<Translation> LogicalChip::translationIs() {
  if (translation()) return translation();
  const auto created = translationFactory(name_);
  attributeIs(translation_, created, &Notifiee::onTranslation);
  return created;
}

void LogicalChip::regCollIs(const LogicalRegister& value) {
  collectionIs(regColl_, value.name(), value, &Notifiee::onRegColl);
}

void LogicalChip::regCollDel(const LogicalRegisterName& key) {
  collectionDel(regColl_, key, &Notifiee::onRegColl);
}

void LogicalChip::regCollDelAll() { collectionDelAll(regColl_, &Notifiee::onRegColl); }

void LogicalChip::logicalFieldIs(const LogicalField& value) {
  collectionIs(logicalField_, value.name(), value, &Notifiee::onLogicalField);
}

void LogicalChip::logicalFieldDel(const LogicalFieldName& key) {
  collectionDel(logicalField_, key, &Notifiee::onLogicalField);
}

void LogicalChip::logicalFieldDelAll() {
  collectionDelAll(logicalField_, &Notifiee::onLogicalField);
}

void LogicalChip::physicalFieldIs(const PhysicalField& value) {
  collectionIs(physicalField_, value.name(), value, &Notifiee::onPhysicalField);
}

void LogicalChip::physicalFieldDel(const PhysicalFieldName& key) {
  collectionDel(physicalField_, key, &Notifiee::onPhysicalField);
}

void LogicalChip::physicalFieldDelAll() {
  collectionDelAll(physicalField_, &Notifiee::onPhysicalField);
}

void LogicalChip::shadowToPhysicalNameIs(const ShadowFieldKey& key,
                                         const PhysicalFieldName& value) {
  collectionIs(shadowToPhysicalName_, key, value, &Notifiee::onShadowToPhysicalName);
}

void LogicalChip::shadowToPhysicalNameDel(const ShadowFieldKey& key) {
  collectionDel(shadowToPhysicalName_, key, &Notifiee::onShadowToPhysicalName);
}

void LogicalChip::shadowToPhysicalNameDelAll() {
  collectionDelAll(shadowToPhysicalName_, &Notifiee::onShadowToPhysicalName);
}

void LogicalChip::shadowFieldsConfigIs(const Orb::Ptr<ShadowFieldsConfig>& table) {
  attributeIs(shadowFieldsConfig_, table, &Notifiee::onShadowFieldsConfig);
}

void LogicalChip::shadowFieldsStatusIs(const Orb::Ptr<ShadowFieldsStatus>& table) {
  attributeIs(shadowFieldsStatus_, table, &Notifiee::onShadowFieldsStatus);
}

const Orb::EntityType& LogicalChip::entityType() {
  using T = LogicalChip;
  using Name = const Orb::String&;
  static const auto type =
      Orb::EntityTypeOf<T>("KoruRegFile::LogicalChip")
          .attribute("name", &T::name)
          .attribute("translation", &T::translation)
          .attribute("regColl", static_cast<const Registers& (T::*)() const>(&T::regColl))
          .attribute("logicalField",
                     static_cast<const LogicalFields& (T::*)() const>(&T::logicalField))
          .attribute("physicalField",
                     static_cast<const PhysicalFields& (T::*)() const>(&T::physicalField))
          .attribute("physicalFieldCount", &T::physicalFieldCount)
          .attribute("shadowToPhysicalName",
                     static_cast<const ShadowNames& (T::*)() const>(&T::shadowToPhysicalName))
          .attribute("shadowFieldsConfig", &T::shadowFieldsConfig)
          .attribute("shadowFieldsStatus", &T::shadowFieldsStatus)
          .attribute("ready", &T::ready)
          .attribute("initialized", &T::initialized)
          .operation("handleInitialized", &T::handleInitialized, {})
          .operation("translationIs", &T::translationIs, {})
          .operation("populateLogicalField", &T::populateLogicalField,
                     {"regName", "fieldName", "start", "size", "value"})
          .operation("populatePhysicalField", &T::populatePhysicalField,
                     {"regName", "fieldName", "start", "size"})
          .operation("mountShadowFields", &T::mountShadowFields,
                     {"shmemEntityManager", "configPath", "statusPath"})
          .operation("readyIs", &T::readyIs, {"ready"})
          .operation("fieldWrite", static_cast<void (T::*)(Name, Name, uint32_t)>(&T::fieldWrite),
                     {"regName", "fieldName", "value"})
          .operation("regWrite", static_cast<void (T::*)(Name, uint64_t)>(&T::regWrite),
                     {"regName", "value"})
          .operation("regGetLastWritten",
                     static_cast<uint64_t (T::*)(Name) const>(&T::regGetLastWritten), {"regName"})
          .operation("fieldGetLastWritten",
                     static_cast<uint32_t (T::*)(Name, Name) const>(&T::fieldGetLastWritten),
                     {"regName", "fieldName"})
          .operation("regCollDel", &T::regCollDel, {"key"})
          .operation("regCollDelAll", &T::regCollDelAll, {})
          .operation("logicalFieldIs", &T::logicalFieldIs, {"value"})
          .operation("logicalFieldDel", &T::logicalFieldDel, {"key"})
          .operation("logicalFieldDelAll", &T::logicalFieldDelAll, {})
          .operation("physicalFieldIs", &T::physicalFieldIs, {"value"})
          .operation("physicalFieldDel", &T::physicalFieldDel, {"key"})
          .operation("physicalFieldDelAll", &T::physicalFieldDelAll, {})
          .operation("shadowToPhysicalNameIs", &T::shadowToPhysicalNameIs, {"key", "value"})
          .operation("shadowToPhysicalNameDel", &T::shadowToPhysicalNameDel, {"key"})
          .operation("shadowToPhysicalNameDelAll", &T::shadowToPhysicalNameDelAll, {});
  return type;
}

}  // namespace KoruRegFile
