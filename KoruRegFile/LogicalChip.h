#pragma once

// A chip as agents see it: logical registers made of logical fields, and the physical fields that
// these stand for. An agent describes the chip (populate...), mounts its shadow tables, and has it
// made ready; from then on fields and registers are written and read by name. A write changes the
// model only; LogicalWriteSm (LogicalSms.h) carries it on. Values are what was last written, not
// what the hardware holds. Used on the framework's thread; owns its Translation.
//
// Wrong use of the describing and accessing operations (population of a ready chip, access to one
// that is not ready or has no such register or field) fails a fatal assertion.

#include <cstdint>
#include <string_view>
#include <utility>

#include "KoruRegFile/Export.h"
#include "KoruRegFile/LogicalFieldHandle.h"
#include "KoruRegFile/LogicalTypes.h"
#include "KoruRegFile/PhysicalTypes.h"
#include "KoruRegFile/ShoalTypes.h"
#include "KoruRegFile/Translation.h"
#include "Orb/Anchor.h"
#include "Orb/EntityStrep.h"
#include "Orb/Notifier.h"
#include "OrbPool/EntityManager.h"

namespace KoruRegFile {

class KORU_EXPORT LogicalChip : public Orb::Notifier<LogicalChip> {
 public:
  class Notifiee : public Orb::NotifieeOf<LogicalChip> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onTranslation() {}
    virtual void onRegColl(const LogicalRegisterName& /*name*/) {}
    virtual void onLogicalField(const LogicalFieldName& /*name*/) {}
    virtual void onPhysicalField(const PhysicalFieldName& /*name*/) {}
    virtual void onPhysicalFieldCount() {}
    virtual void onShadowToPhysicalName(const ShadowFieldKey& /*key*/) {}
    virtual void onShadowFieldsConfig() {}
    virtual void onShadowFieldsStatus() {}
    virtual void onReady() {}
    virtual void onInitialized() {}
  };
  using Registers = Orb::Collection<LogicalRegisterName, LogicalRegister>;
  using LogicalFields = Orb::Collection<LogicalFieldName, LogicalField>;
  using PhysicalFields = Orb::Collection<PhysicalFieldName, PhysicalField>;
  using ShadowNames = Orb::Collection<ShadowFieldKey, PhysicalFieldName>;

  explicit LogicalChip(const Orb::String& name);
  static Orb::Ptr<LogicalChip> LogicalChipIs(const Orb::String& name);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  const Orb::String& name() const { return name_; }
  void handleInitialized();  // creates what a chip needs; part of its construction

  // --- Describing ---------------------------------------------------------------------------

  // Bare names, without the chip's. `start` and `size` are in bits; those outside the limits of
  // LogicalField and PhysicalField throw Orb::RangeException, and nothing has changed then. A field
  // populated again is replaced: the bits of a logical one stay where they were before, a physical
  // one gets another shadow key.
  void populateLogicalField(const Orb::String& regName, const Orb::String& fieldName, uint8_t start,
                            uint8_t size, uint32_t value);
  // Gives the field the next shadow key: addresses are 0, 1, 2, ... in the order of population. An
  // agent that wants other keys sets them afterwards (physicalFieldIs, shadowToPhysicalNameIs).
  void populatePhysicalField(const Orb::String& regName, const Orb::String& fieldName,
                             uint8_t start, uint8_t size);

  // Mounts both shadow tables for writing, with room for all physical fields, and gives each
  // physical field, under the key that it has now, the value 0 in the configuration. Throws what
  // OrbPool::MountGroup::mount() throws; the chip has no new table then. A physical field that the
  // translation lacks fails a fatal assertion.
  void mountShadowFields(const Orb::Ptr<OrbPool::EntityManager>& shmemEntityManager,
                         const Orb::String& configPath, const Orb::String& statusPath);

  bool ready() const { return ready_(); }
  void readyIs(bool ready) { attributeIs(ready_, ready, &Notifiee::onReady); }

  // --- Access -------------------------------------------------------------------------------

  // The field keeps `value` as it is; its register takes the low bits that fit.
  void fieldWrite(const Orb::String& regName, const Orb::String& fieldName, uint32_t value);
  // Writes every field of the register.
  void regWrite(const Orb::String& regName, uint64_t value);
  uint64_t regGetLastWritten(const Orb::String& regName) const;
  uint32_t fieldGetLastWritten(const Orb::String& regName, const Orb::String& fieldName) const;
  // For names in other forms, of which no Orb::String is made.
  template <class Reg, Orb::OtherTextWith<Reg> Field>
  void fieldWrite(const Reg& regName, const Field& fieldName, uint32_t value) {
    namedWrite(regName, fieldName, value);
  }
  template <Orb::OtherText Reg>
  void regWrite(const Reg& regName, uint64_t value) {
    namedRegWrite(regName, value);
  }
  template <Orb::OtherText Reg>
  uint64_t regGetLastWritten(const Reg& regName) const {
    return namedRegLastWritten(regName);
  }
  template <class Reg, Orb::OtherTextWith<Reg> Field>
  uint32_t fieldGetLastWritten(const Reg& regName, const Field& fieldName) const {
    return namedLastWritten(regName, fieldName);
  }

  // The field, to be written again and again. Throws std::runtime_error when the chip has no such
  // field; it need not be ready yet.
  LogicalFieldHandle field(const Orb::String& regName, const Orb::String& fieldName) const;

  // --- Attributes ---------------------------------------------------------------------------

  const Orb::Ptr<Translation>& translation() const { return translation_(); }
  // The chip's translation; made if there is none.
  Orb::Ptr<Translation> translationIs();

  // Each collection: all entries; the entry, or the default one; insert or overwrite by its name.
  const Registers& regColl() const { return regColl_; }
  const LogicalRegister& regColl(const LogicalRegisterName& key) const { return regColl_(key); }
  bool regCollHas(const LogicalRegisterName& key) const { return regColl_.has(key); }
  void regCollIs(const LogicalRegister& value);
  void regCollDel(const LogicalRegisterName& key);
  void regCollDelAll();

  const LogicalFields& logicalField() const { return logicalField_; }
  const LogicalField& logicalField(const LogicalFieldName& key) const { return logicalField_(key); }
  bool logicalFieldHas(const LogicalFieldName& key) const { return logicalField_.has(key); }
  void logicalFieldIs(const LogicalField& value);
  void logicalFieldDel(const LogicalFieldName& key);
  void logicalFieldDelAll();

  const PhysicalFields& physicalField() const { return physicalField_; }
  const PhysicalField& physicalField(const PhysicalFieldName& key) const {
    return physicalField_(key);
  }
  bool physicalFieldHas(const PhysicalFieldName& key) const { return physicalField_.has(key); }
  void physicalFieldIs(const PhysicalField& value);
  void physicalFieldDel(const PhysicalFieldName& key);
  void physicalFieldDelAll();
  // How many physical fields have been populated, each time counted.
  uint32_t physicalFieldCount() const { return physicalFieldCount_(); }

  const ShadowNames& shadowToPhysicalName() const { return shadowToPhysicalName_; }
  const PhysicalFieldName& shadowToPhysicalName(const ShadowFieldKey& key) const {
    return shadowToPhysicalName_(key);
  }
  bool shadowToPhysicalNameHas(const ShadowFieldKey& key) const {
    return shadowToPhysicalName_.has(key);
  }
  void shadowToPhysicalNameIs(const ShadowFieldKey& key, const PhysicalFieldName& value);
  void shadowToPhysicalNameDel(const ShadowFieldKey& key);
  void shadowToPhysicalNameDelAll();

  // Null until they are mounted.
  const Orb::Ptr<ShadowFieldsConfig>& shadowFieldsConfig() const { return shadowFieldsConfig_(); }
  const Orb::Ptr<ShadowFieldsStatus>& shadowFieldsStatus() const { return shadowFieldsStatus_(); }
  void shadowFieldsConfigIs(const Orb::Ptr<ShadowFieldsConfig>& table);
  void shadowFieldsStatusIs(const Orb::Ptr<ShadowFieldsStatus>& table);
  bool initialized() const { return initialized_(); }

 private:
  friend class LogicalFieldHandle;
  using FoundField = std::pair<const LogicalRegister*, const LogicalField*>;

  void namedWrite(std::string_view regName, std::string_view fieldName, uint32_t value);
  void namedRegWrite(std::string_view regName, uint64_t value);
  uint64_t namedRegLastWritten(std::string_view regName) const;
  uint32_t namedLastWritten(std::string_view regName, std::string_view fieldName) const;
  // Of a chip that is ready and has the field; null otherwise.
  FoundField findField(const LogicalFieldName& name) const;
  // Whether there was such a field to write.
  bool handleWrite(const LogicalFieldName& name, uint32_t value);
  void write(const LogicalRegister& reg, const LogicalField& field, uint32_t value);
  // Of a ready chip; assert that it is there. The hash is that of the field's full name.
  const LogicalRegister& existingRegister(const RegisterNameQuery& query) const;
  const LogicalField& existingField(const LogicalRegister& reg, std::string_view fieldName,
                                    NameHash hash) const;
  // Asks for the memory that a write to a field will touch (Orb/Fetch.h).
  template <class RegisterKey, class FieldKey>
  void fieldFetch(const RegisterKey& reg, const FieldKey& field) const;

  const Orb::String name_;
  Orb::Attribute<Orb::Ptr<Translation>> translation_;
  Registers regColl_;
  LogicalFields logicalField_;
  PhysicalFields physicalField_;
  Orb::Attribute<uint32_t> physicalFieldCount_;
  ShadowNames shadowToPhysicalName_;
  Orb::Attribute<Orb::Ptr<ShadowFieldsConfig>> shadowFieldsConfig_;
  Orb::Attribute<Orb::Ptr<ShadowFieldsStatus>> shadowFieldsStatus_;
  Orb::Attribute<bool> ready_;
  Orb::Attribute<bool> initialized_;
  Orb::Anchor<LogicalChip> anchor_{*this};
  Orb::DirectoryEntry directoryEntry_{*this};
};

KORU_EXPORT Orb::Ptr<LogicalChip> logicalChipFactory(const Orb::String& name);

}  // namespace KoruRegFile
