#pragma once

// The shadow field tables: what every physical field of a chip is to hold (ShadowFieldsConfig), and
// what has been written (ShadowFieldsStatus). Entities whose one collection, `field`, lives in
// shared memory: one process writes it, any number read it, and it survives them all. Changes made
// by another process reach the notifiees through the event loop. Used on the framework's thread.
//
// Damage in shared memory goes to Shoal::ShoalMapBase::doCorruptionDetected(). A look-up then
// yields the default value and an iteration ends; a change does not return: the program stops.

#include <optional>
#include <vector>

#include "KoruRegFile/Export.h"
#include "KoruRegFile/ShadowFieldTypes.h"
#include "Orb/Counter.h"
#include "Orb/EntityStrep.h"
#include "Orb/Notifier.h"
#include "OrbPool/EntityManager.h"
#include "Shoal/CollectionControl.h"
#include "Shoal/ShoalMap.h"

namespace KoruRegFile {

// What the two tables have in common; T is one of them.
template <class T>
class KORU_EXPORT ShadowFieldsTable : public Orb::Notifier<T, OrbPool::PoolEntity> {
 public:
  ~ShadowFieldsTable() override;

  const Orb::EntityType& fwkType() const override { return T::entityType(); }
  Orb::String entityName() const override { return name_; }
  const Orb::String& name() const { return name_; }

  // The value stored under the key, or the default value.
  ShadowFieldValue field(const ShadowFieldKey& key) const;
  bool fieldHas(const ShadowFieldKey& key) const;
  // To be called some time before the field is changed, by those who know: asks for the memory that
  // the change will touch here (Orb/Fetch.h), and has the notifiees ask for theirs.
  void fieldFetch(const ShadowFieldKey& key) const;
  // All entries, in the table's own order; what is changed meanwhile does not show.
  std::vector<ShadowFieldValue> fields() const;
  // Other processes that have mounted the table to read it; none are known to one who reads it.
  size_t readerCount() const { return map_.readerCount(); }

  // Inserts or overwrites. These throw std::logic_error unless the table is mounted for writing.
  void fieldIs(const ShadowFieldValue& value);
  // The second half of a two-phase write: publishes what the caller has prepared in its own memory.
  void fieldCommit(const ShadowFieldValue* value);
  // Notifies also when the key was absent.
  void fieldDel(const ShadowFieldKey& key);
  // Notifies of each key, if there is anybody to notify.
  void fieldDelAll();
  // Tells the notifiees of a change that was made elsewhere.
  void fieldNotify(const ShadowFieldKey& key);
  void fieldNotifyMountStatus();
  void fieldNotifyQuiesced(bool quiesced);

  const Orb::Ptr<Shoal::CollectionControl>& fieldControl() const { return fieldControl_(); }
  void fieldControlIs(const Orb::Ptr<Shoal::CollectionControl>& control);

 protected:
  explicit ShadowFieldsTable(const Orb::String& name);

 private:
  // Hands the table over to its control when nobody else holds it any more; once.
  class ZeroReferencesNotifiee : public Orb::ZeroReferencesNotifiee {
   public:
    explicit ZeroReferencesNotifiee(ShadowFieldsTable& table);
    void onZeroReferences() override;

   private:
    ShadowFieldsTable& table_;
  };

  void handleMount(std::string_view path, OrbPool::MountType type, uint32_t entries) override;
  void remoteChange(uint64_t key);
  void store(const ShadowFieldValue& value);

  const Orb::String name_;
  Orb::Counter fieldIsCount_;
  Orb::Counter fieldDelCount_;
  Orb::Counter fieldNotifyCount_;
  ZeroReferencesNotifiee zeroReferencesNotifiee_;
  Orb::Attribute<Orb::Ptr<Shoal::CollectionControl>> fieldControl_;
  Shoal::ShoalMap map_;
  Orb::DirectoryEntry directoryEntry_{*this};
};

class KORU_EXPORT ShadowFieldsConfig : public ShadowFieldsTable<ShadowFieldsConfig> {
 public:
  class Notifiee : public Orb::NotifieeOf<ShadowFieldsConfig> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onField(const ShadowFieldKey& /*key*/) {}
    // Of fieldFetch(): may ask for memory, but changes nothing.
    virtual void fieldFetch(const ShadowFieldKey& /*key*/) {}
    virtual void onFieldControl() {}
  };
  explicit ShadowFieldsConfig(const Orb::String& name) : ShadowFieldsTable(name) {}
  static Orb::Ptr<ShadowFieldsConfig> ShadowFieldsConfigIs(const Orb::String& name);
  static const Orb::EntityType& entityType();
};

class KORU_EXPORT ShadowFieldsStatus : public ShadowFieldsTable<ShadowFieldsStatus> {
 public:
  class Notifiee : public Orb::NotifieeOf<ShadowFieldsStatus> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onField(const ShadowFieldKey& /*key*/) {}
    // Of fieldFetch(): may ask for memory, but changes nothing.
    virtual void fieldFetch(const ShadowFieldKey& /*key*/) {}
    virtual void onFieldControl() {}
  };
  explicit ShadowFieldsStatus(const Orb::String& name) : ShadowFieldsTable(name) {}
  static Orb::Ptr<ShadowFieldsStatus> ShadowFieldsStatusIs(const Orb::String& name);
  static const Orb::EntityType& entityType();
};

// The field whose entries lie under that key of a table in shared memory; nothing for a key that no
// table of shadow fields can hold.
KORU_EXPORT std::optional<ShadowFieldKey> unpackShadowFieldKey(uint64_t key);
// The other way round.
KORU_EXPORT uint64_t packShadowFieldKey(const ShadowFieldKey& field);

KORU_EXPORT Orb::Ptr<ShadowFieldsConfig> shadowFieldsConfigFactory(const Orb::String& name);
KORU_EXPORT Orb::Ptr<ShadowFieldsStatus> shadowFieldsStatusFactory(const Orb::String& name);

// Defined in ShoalTypes.cpp.
extern template class ShadowFieldsTable<ShadowFieldsConfig>;
extern template class ShadowFieldsTable<ShadowFieldsStatus>;

}  // namespace KoruRegFile
