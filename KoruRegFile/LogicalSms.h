#pragma once

// Carries every change of a chip's logical fields into its configuration table, from where
// ShadowFieldsSm (ShadowSms.h) writes the hardware. One per chip, made after the chip has mounted
// its tables; it keeps the chip alive. Runs on the framework's thread, inside the call that changes
// the field, and lets what the table's reactors throw pass to whoever made that call.

#include "KoruRegFile/Export.h"
#include "KoruRegFile/LogicalChip.h"

namespace KoruRegFile {

class KORU_EXPORT LogicalWriteSm : public Orb::Entity {
 public:
  // Starts to watch, and writes every field whose value differs from the table's. Throws
  // std::invalid_argument for a null chip.
  explicit LogicalWriteSm(const Orb::Ptr<LogicalChip>& logicalChip);
  ~LogicalWriteSm() override;
  static Orb::Ptr<LogicalWriteSm> LogicalWriteSmIs(const Orb::Ptr<LogicalChip>& logicalChip);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override;

  Orb::Ptr<LogicalChip> logicalChip() const;
  // Off, it does not hear of changes. On from the start.
  void hasNotificationActiveIs(bool active);

  // All fields, in the order of the chip's collection.
  void handleLogicalField();
  // One field. A name that the chip no longer holds, or does not translate, fails a fatal
  // assertion.
  void handleLogicalField(const LogicalFieldName& name);
  // Writes the field's whole value under its physical field's key, unless the table holds it. A
  // logical field without a physical one is traced and left alone. Throws std::logic_error when the
  // chip has not mounted its tables.
  void maybeWriteField(const LogicalField& field);

 private:
  class OrbLogicalChip : public LogicalChip::Notifiee {
   public:
    OrbLogicalChip(const Orb::Ptr<LogicalChip>& chip, LogicalWriteSm& owner)
        : Notifiee(chip), owner_(owner) {}
    void onLogicalField(const LogicalFieldName& name) override { owner_.handleLogicalField(name); }

   private:
    LogicalWriteSm& owner_;
  };

  OrbLogicalChip logicalChip_;
  Orb::DirectoryEntry directoryEntry_{*this};
};

KORU_EXPORT Orb::Ptr<LogicalWriteSm> logicalWriteSmFactory(
    const Orb::Ptr<LogicalChip>& logicalChip);

}  // namespace KoruRegFile
