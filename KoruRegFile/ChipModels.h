#pragma once

// The objects that belong to each chip, by the chip's name. Written by SystemChipStatusSmBase, read
// by agents that want to write fields (LogicalModel) or registers (PhysicalModel). They keep what
// they hold alive. Used on the framework's thread.

#include "KoruRegFile/Export.h"
#include "KoruRegFile/LogicalSms.h"
#include "KoruRegFile/ShadowSms.h"
#include "KoruRegFile/TransportMethod.h"
#include "Orb/Notifier.h"

namespace KoruRegFile {

// In both models: a look-up yields null for an absent name; an object is stored under the name that
// it has itself, in the place of what is there. Null is no object: std::invalid_argument.

class KORU_EXPORT LogicalModel : public Orb::Notifier<LogicalModel> {
 public:
  class Notifiee : public Orb::NotifieeOf<LogicalModel> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onChip(const Orb::String& /*name*/) {}
    virtual void onWriteSm(const Orb::String& /*name*/) {}
  };
  using Chips = Orb::Collection<Orb::String, Orb::Ptr<LogicalChip>>;
  using WriteSms = Orb::Collection<Orb::String, Orb::Ptr<LogicalWriteSm>>;

  static Orb::Ptr<LogicalModel> LogicalModelIs();
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }

  const Chips& chip() const { return chip_; }
  const Orb::Ptr<LogicalChip>& chip(std::string_view name) const { return chip_(name); }
  void chipIs(const Orb::Ptr<LogicalChip>& chip);
  void chipDel(const Orb::String& name);
  void chipDelAll();

  const WriteSms& writeSm() const { return writeSm_; }
  const Orb::Ptr<LogicalWriteSm>& writeSm(std::string_view name) const { return writeSm_(name); }
  void writeSmIs(const Orb::Ptr<LogicalWriteSm>& writeSm);
  void writeSmDel(const Orb::String& name);
  void writeSmDelAll();

 private:
  Chips chip_;
  WriteSms writeSm_;
  Orb::DirectoryEntry directoryEntry_{*this};
};

class KORU_EXPORT PhysicalModel : public Orb::Notifier<PhysicalModel> {
 public:
  class Notifiee : public Orb::NotifieeOf<PhysicalModel> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onTransport(const Orb::String& /*name*/) {}
    virtual void onShadowSm(const Orb::String& /*name*/) {}
    virtual void onSimulate() {}
  };
  using Transports = Orb::Collection<Orb::String, Orb::Ptr<TransportMethod>>;
  using ShadowSms = Orb::Collection<Orb::String, Orb::Ptr<ShadowFieldsSm>>;

  static Orb::Ptr<PhysicalModel> PhysicalModelIs();
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }

  const Transports& transport() const { return transport_; }
  const Orb::Ptr<TransportMethod>& transport(std::string_view name) const {
    return transport_(name);
  }
  void transportIs(const Orb::Ptr<TransportMethod>& transport);
  void transportDel(const Orb::String& name);
  void transportDelAll();

  const ShadowSms& shadowSm() const { return shadowSm_; }
  const Orb::Ptr<ShadowFieldsSm>& shadowSm(std::string_view name) const { return shadowSm_(name); }
  void shadowSmIs(const Orb::Ptr<ShadowFieldsSm>& shadowSm);
  void shadowSmDel(const Orb::String& name);
  void shadowSmDelAll();

  // Whether the shadow field reactors made from now on only pretend to write registers.
  bool simulate() const { return simulate_(); }
  void simulateIs(bool simulate) { attributeIs(simulate_, simulate, &Notifiee::onSimulate); }

 private:
  Transports transport_;
  ShadowSms shadowSm_;
  Orb::Attribute<bool> simulate_;
  Orb::DirectoryEntry directoryEntry_{*this};
};

KORU_EXPORT Orb::Ptr<LogicalModel> logicalModelFactory();
KORU_EXPORT Orb::Ptr<PhysicalModel> physicalModelFactory();

}  // namespace KoruRegFile
