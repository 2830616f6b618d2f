#include "KoruRegFile/LogicalSms.h"

#include <stdexcept>
#include <vector>

#include "Brio/CorruptionDetectedException.h"
#include "Orb/EntityType.h"
#include "Orb/Trace.h"

namespace KoruRegFile {

namespace {

constexpr int errorLevel = 0;
constexpr int detailLevel = 2;
Orb::TraceHandle trace("LogicalWriteSm");

const Orb::Ptr<LogicalChip>& existing(const Orb::Ptr<LogicalChip>& chip) {
  if (!chip) throw std::invalid_argument("a logical write reactor needs a logical chip");
  return chip;
}

}  // namespace

Orb::Ptr<LogicalWriteSm> logicalWriteSmFactory(const Orb::Ptr<LogicalChip>& logicalChip) {
  auto reactor = Orb::make<LogicalWriteSm>(logicalChip);
  reactor->hasNotificationActiveIs(true);
  return reactor;
}

Orb::Ptr<LogicalWriteSm> LogicalWriteSm::LogicalWriteSmIs(
    const Orb::Ptr<LogicalChip>& logicalChip) {
  return logicalWriteSmFactory(logicalChip);
}

LogicalWriteSm::LogicalWriteSm(const Orb::Ptr<LogicalChip>& logicalChip)
    : logicalChip_(existing(logicalChip), *this) {
  logicalChip_.hasNotificationActiveIs(true);
  handleLogicalField();
}

LogicalWriteSm::~LogicalWriteSm() = default;

Orb::String LogicalWriteSm::entityName() const { return logicalChip()->name(); }

Orb::Ptr<LogicalChip> LogicalWriteSm::logicalChip() const { return logicalChip_.notifier(); }

void LogicalWriteSm::hasNotificationActiveIs(bool active) {
  logicalChip_.hasNotificationActiveIs(active);
}

void LogicalWriteSm::handleLogicalField() {
  const auto keep = Orb::keepAlive(this);
  const auto chip = logicalChip();
  // Reactors may change the collection meanwhile.
  std::vector<LogicalFieldName> names;
  names.reserve(chip->logicalField().size());
  for (const auto& [name, field] : chip->logicalField()) names.push_back(name);
  for (const LogicalFieldName& name : names) {
    if (chip->logicalField().has(name)) handleLogicalField(name);
  }
}

void LogicalWriteSm::handleLogicalField(const LogicalFieldName& name) {
  ORB_TRACE(trace, detailLevel, "LogicalWriteSm::handleLogicalField name: {}", name.fullName());
  maybeWriteField(logicalChip_.notifier()->logicalField(name));
}

void LogicalWriteSm::maybeWriteField(const LogicalField& field) {
  ORB_TRACE(trace, detailLevel, "LogicalWriteSm::maybeWriteField value: {}",
            Orb::valueToStrep(field));
  const LogicalChip& chip = *logicalChip_.notifier();
  const PhysicalFieldName& pfName = chip.translation()->getPhysicalFieldName(field.name());
  const PhysicalField* physical = chip.physicalField().find(pfName);
  if (!physical) {
    ORB_TRACE(trace, errorLevel, "No physicalField mapping to {}", Orb::valueToStrep(pfName));
    return;
  }
  const ShadowFieldValue value(physical->key(), field.value());
  const Orb::Ptr<ShadowFieldsConfig> table = chip.shadowFieldsConfig();
  if (!table) {
    throw std::logic_error("chip " + std::string(chip.name()) +
                           " has not mounted its shadow tables: there is nothing to write to");
  }
  try {
    if (table->field(value.key()).value() != value.value()) table->fieldIs(value);
  } catch (const Brio::CorruptionDetectedException& e) {
    Shoal::ShoalMapBase::doCorruptionDetected(e.msg());
  }
}

const Orb::EntityType& LogicalWriteSm::entityType() {
  using T = LogicalWriteSm;
  static const auto type =
      Orb::EntityTypeOf<T>("KoruRegFile::LogicalWriteSm")
          .attribute("logicalChip", &T::logicalChip)
          .operation("handleLogicalField", static_cast<void (T::*)()>(&T::handleLogicalField), {})
          .operation("handleLogicalField",
                     static_cast<void (T::*)(const LogicalFieldName&)>(&T::handleLogicalField),
                     {"name"})
          .operation("maybeWriteField", &T::maybeWriteField, {"field"});
  return type;
}

}  // namespace KoruRegFile
