#pragma once

// Writes hardware registers from shadow fields. A ShadowFieldsSm composes all configured fields of
// a register into its 32-bit value, writes the register through the chip's transport when that
// differs from what was last written, and records the field in the status table. It begins by
// rebuilding what was configured and written from both tables, so that after a restart it writes
// only what differs.
//
// One per chip. The configuration table may be written by another process and be mounted here for
// reading; the status table is always written here. Used on the framework's thread; keeps both
// tables and the transport alive.

#include <cstdint>
#include <optional>

#include "KoruRegFile/Export.h"
#include "KoruRegFile/ShoalTypes.h"
#include "KoruRegFile/TransportMethod.h"
#include "Orb/EntityStrep.h"
#include "Orb/Notifier.h"

namespace KoruRegFile {

// `reg` with the `len` bits from `start` on replaced by the low bits of `value`; bits above bit 31
// are discarded. A length that spans more than nine bytes, or is above 63, fails a fatal assertion.
KORU_EXPORT uint32_t bitStreamSet(uint32_t reg, uint8_t start, uint8_t len, uint32_t value);

class KORU_EXPORT ShadowFieldsSm : public Orb::Notifier<ShadowFieldsSm> {
 public:
  class Notifiee : public Orb::NotifieeOf<ShadowFieldsSm> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onInitialized() {}
    virtual void onRegConfig(uint32_t /*address*/) {}
    virtual void onRegStatus(uint32_t /*address*/) {}
  };
  using RegValues = Orb::FlatCollection<uint32_t, uint32_t>;
  using Config = Orb::Ptr<ShadowFieldsConfig>;
  using Status = Orb::Ptr<ShadowFieldsStatus>;
  using Transport = Orb::Ptr<TransportMethod>;

  // Starts to watch, and writes what differs: throws what the handlers below throw. Without a
  // configuration there is nothing to watch. Throws std::invalid_argument when there is one, but no
  // status table or, unless simulating, no transport.
  ShadowFieldsSm(const Config& config, const Status& status, const Transport& transport,
                 bool simulate);
  ~ShadowFieldsSm() override;
  static Orb::Ptr<ShadowFieldsSm> ShadowFieldsSmIs(const Config& config, const Status& status,
                                                   const Transport& transport, bool simulate);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name(); }

  // The name of its transport, which is the chip's; empty without a transport.
  Orb::String name() const { return transport_ ? transport_->name() : Orb::String(); }
  Config shadowFieldsConfig() const;
  const Status& shadowFieldsStatus() const { return shadowFieldsStatus_; }
  const Transport& transport() const { return transport_; }
  // Whether no register is written; everything else happens all the same.
  bool simulate() const { return simulate_; }
  bool initialized() const { return initialized_(); }
  // Off, it does not hear of changes. On from the start.
  void hasNotificationActiveIs(bool active);

  // By register address: the value that the configuration asks for, and the one last written. A
  // missing address reads as 0.
  const RegValues& regConfig() const { return regConfig_; }
  void regConfigIs(uint32_t address, uint32_t value);
  void regConfigDel(uint32_t address);
  void regConfigDelAll();
  const RegValues& regStatus() const { return regStatus_; }
  void regStatusIs(uint32_t address, uint32_t value);
  void regStatusDel(uint32_t address);
  void regStatusDelAll();

  // Rebuilds the state from both tables, then handles every configured field.
  void handleInitialized();
  // Every configured field, in the table's order.
  void handleShadowField();
  // One field. Throws std::runtime_error when the register map has no register at its address;
  // nothing is recorded then, and the next change of a field of that register tries again. (That a
  // write has failed is the transport's to tell: see TransportMethod.)
  void handleShadowField(const ShadowFieldKey& key);

 private:
  class OrbShadowFieldsConfig : public ShadowFieldsConfig::Notifiee {
   public:
    OrbShadowFieldsConfig(const Config& config, ShadowFieldsSm& owner)
        : Notifiee(config), owner_(owner) {}
    void onField(const ShadowFieldKey& key) override { owner_.handleShadowField(key); }
    void fieldFetch(const ShadowFieldKey& key) override { owner_.fieldFetch(key); }

   private:
    ShadowFieldsSm& owner_;
  };

  void fieldFetch(const ShadowFieldKey& key) const;
  void writeRegister(uint32_t address);

  std::optional<OrbShadowFieldsConfig> shadowFieldsConfig_;
  const Status shadowFieldsStatus_;
  const Transport transport_;
  const bool simulate_;
  Orb::Attribute<bool> initialized_;
  RegValues regConfig_;
  RegValues regStatus_;
  Orb::DirectoryEntry directoryEntry_{*this};
};

KORU_EXPORT Orb::Ptr<ShadowFieldsSm> shadowFieldsSmFactory(
    const ShadowFieldsSm::Config& config, const ShadowFieldsSm::Status& status,
    const ShadowFieldsSm::Transport& transport, bool simulate);

}  // namespace KoruRegFile
