#pragma once

// Which physical field each logical field of a chip stands for, and back. Owned by a LogicalChip,
// filled by the agent that describes the chip, at any time. Used on the framework's thread.
//
// Each direction has one name per name. Nothing keeps the two inverse to each other but populate(),
// which writes both.

#include "KoruRegFile/Export.h"
#include "KoruRegFile/FieldNamePool.h"
#include "KoruRegFile/LogicalTypes.h"
#include "KoruRegFile/PhysicalTypes.h"
#include "Orb/EntityStrep.h"
#include "Orb/Notifier.h"

namespace KoruRegFile {

class KORU_EXPORT Translation : public Orb::Notifier<Translation> {
 public:
  class Notifiee : public Orb::NotifieeOf<Translation> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onLogicalToPhysical(const LogicalFieldName& /*name*/) {}
    virtual void onPhysicalToLogical(const PhysicalFieldName& /*name*/) {}
  };
  using ToPhysical = Orb::Collection<LogicalFieldName, PhysicalFieldName>;
  using ToLogical = Orb::Collection<PhysicalFieldName, LogicalFieldName>;

  // `name` is the chip's.
  explicit Translation(const Orb::String& name);
  static Orb::Ptr<Translation> TranslationIs(const Orb::String& name);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  const Orb::String& name() const { return name_; }

  const ToPhysical& logicalToPhysical() const { return logicalToPhysical_; }
  // The name, or the default name.
  const PhysicalFieldName& logicalToPhysical(const LogicalFieldName& name) const {
    return logicalToPhysical_(name);
  }
  bool logicalToPhysicalHas(const LogicalFieldName& name) const {
    return logicalToPhysical_.has(name);
  }
  void logicalToPhysicalIs(const LogicalFieldName& key, const PhysicalFieldName& value);
  void logicalToPhysicalDel(const LogicalFieldName& key);
  void logicalToPhysicalDelAll();

  const ToLogical& physicalToLogical() const { return physicalToLogical_; }
  const LogicalFieldName& physicalToLogical(const PhysicalFieldName& name) const {
    return physicalToLogical_(name);
  }
  bool physicalToLogicalHas(const PhysicalFieldName& name) const {
    return physicalToLogical_.has(name);
  }
  void physicalToLogicalIs(const PhysicalFieldName& key, const LogicalFieldName& value);
  void physicalToLogicalDel(const PhysicalFieldName& key);
  void physicalToLogicalDelAll();

  // Maps a logical field (register, field) to a physical one, both ways; bare names, without the
  // chip's. Neither field has to exist.
  void populate(const Orb::String& lrName, const Orb::String& lfName, const Orb::String& prName,
                const Orb::String& pfName);

  // The name of a field of this chip, shared with everything that got it here.
  LogicalFieldName logicalFieldName(const Orb::String& regName, const Orb::String& fieldName) {
    return logicalNames_.fieldName(regName, fieldName);
  }
  PhysicalFieldName physicalFieldName(const Orb::String& regName, const Orb::String& fieldName) {
    return physicalNames_.fieldName(regName, fieldName);
  }

  // The mapped name, valid while it is mapped. A name without a mapping fails a fatal assertion.
  const PhysicalFieldName& getPhysicalFieldName(const LogicalFieldName& lfName) const;
  const LogicalFieldName& getLogicalFieldName(const PhysicalFieldName& pfName) const;

 private:
  const Orb::String name_;
  FieldNamePool<LogicalRegisterName, LogicalFieldName> logicalNames_{name_};
  FieldNamePool<PhysicalRegisterName, PhysicalFieldName> physicalNames_{name_};
  ToPhysical logicalToPhysical_;
  ToLogical physicalToLogical_;
  Orb::DirectoryEntry directoryEntry_{*this};
};

KORU_EXPORT Orb::Ptr<Translation> translationFactory(const Orb::String& name);

}  // namespace KoruRegFile
