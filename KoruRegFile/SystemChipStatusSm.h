#pragma once

// Builds and takes down what belongs to each chip, as chips come and go in the system status. An
// embedding agent derives its own reactor from this one and says how a chip's logical chip and
// transport are made. Runs on the framework's thread, inside the call that changes the status; what
// the making of an object throws passes to that caller, and what was made before stays.

#include <optional>

#include "KoruRegFile/ChipModels.h"
#include "KoruRegFile/Export.h"
#include "KoruRegFile/SystemStatus.h"
#include "Orb/Notifier.h"
#include "OrbPool/EntityManager.h"

namespace KoruRegFile {

class KORU_EXPORT SystemChipStatusSmBase : public Orb::Notifier<SystemChipStatusSmBase> {
 public:
  class Notifiee : public Orb::NotifieeOf<SystemChipStatusSmBase> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onInitialized() {}
  };

  // Make a chip's logical chip, populated and with its tables mounted, and its transport. Both
  // carry the chip's name. The chip's status is there, but its attributes may not be set yet.
  virtual Orb::Ptr<LogicalChip> createLogicalChip(const Orb::String& chipName) = 0;
  virtual Orb::Ptr<TransportMethod> createTransport(const Orb::String& chipName) = 0;

  ~SystemChipStatusSmBase() override;
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }

  const Orb::Ptr<OrbPool::EntityManager>& shmemEntityManager() const { return shmemEntityManager_; }
  Orb::Ptr<const PossibleSystemStatus> systemStatus() const;
  const Orb::Ptr<LogicalModel>& logicalModel() const { return logicalModel_; }
  const Orb::Ptr<PhysicalModel>& physicalModel() const { return physicalModel_; }
  // For the subclass to say that it is up.
  bool initialized() const { return initialized_(); }
  void initializedIs(bool initialized) {
    attributeIs(initialized_, initialized, &Notifiee::onInitialized);
  }
  // Off, it does not hear of changes. On from the start.
  void hasNotificationActiveIs(bool active);

  // Every chip of the status, for those that were there before the reactor. Removes none.
  void handleSystemChipStatus();
  // One chip. Present in the status: makes what the models lack, and always a new shadow field
  // reactor, which synchronises the hardware; the one before hears of nothing any more. Absent:
  // takes everything down. Throws std::runtime_error when what was made is missing or carries
  // another name. A chip without its tables, and a reactor without a status, fail fatal assertions.
  void handleSystemChipStatus(const Orb::String& chipName);

 protected:
  // Does not look at the chips that are there already. `shmemEntityManager` is for the subclass.
  // Throws std::invalid_argument when a model is null; without a status there is nothing to hear.
  SystemChipStatusSmBase(const Orb::Ptr<OrbPool::EntityManager>& shmemEntityManager,
                         const Orb::Ptr<const PossibleSystemStatus>& systemStatus,
                         const Orb::Ptr<LogicalModel>& logicalModel,
                         const Orb::Ptr<PhysicalModel>& physicalModel);

 private:
  class OrbSystemStatus : public PossibleSystemStatus::Notifiee {
   public:
    OrbSystemStatus(const Orb::Ptr<const PossibleSystemStatus>& status,
                    SystemChipStatusSmBase& owner)
        : Notifiee(status), owner_(owner) {}
    void onChipStatus(const Orb::String& name) override { owner_.handleSystemChipStatus(name); }

   private:
    SystemChipStatusSmBase& owner_;
  };

  bool isThere(const Orb::String& chipName) const;
  void addChip(const Orb::String& chipName);
  void removeChip(const Orb::String& chipName);
  void addLogicalChip(const Orb::String& chipName);
  void addTransport(const Orb::String& chipName);
  void replaceShadowSm(const Orb::String& chipName);

  const Orb::Ptr<OrbPool::EntityManager> shmemEntityManager_;
  const Orb::Ptr<LogicalModel> logicalModel_;
  const Orb::Ptr<PhysicalModel> physicalModel_;
  Orb::Attribute<bool> initialized_;
  std::optional<OrbSystemStatus> systemStatus_;
};

}  // namespace KoruRegFile
