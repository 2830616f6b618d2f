#pragma once

// Tells an agent that an access to its chip has failed. The flag is sticky: observers hear of the
// first failure only, until somebody clears it. Made by TransportMethod, observed and cleared by
// the agent, on the framework's thread.

#include "KoruRegFile/Export.h"
#include "Orb/EntityStrep.h"
#include "Orb/Notifier.h"

namespace KoruRegFile {

class KORU_EXPORT TransportMethodError : public Orb::Notifier<TransportMethodError> {
 public:
  class Notifiee : public Orb::NotifieeOf<TransportMethodError> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onChipName() {}
    virtual void onError() {}
  };

  explicit TransportMethodError(const Orb::String& chipName) : chipName_(chipName) {}
  static Orb::Ptr<TransportMethodError> TransportMethodErrorIs(const Orb::String& chipName);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return chipName(); }

  const Orb::String& chipName() const { return chipName_(); }
  void chipNameIs(const Orb::String& chipName) {
    attributeIs(chipName_, chipName, &Notifiee::onChipName);
  }
  bool error() const { return error_(); }
  void errorIs(bool error) { attributeIs(error_, error, &Notifiee::onError); }

 private:
  Orb::Attribute<Orb::String> chipName_;
  Orb::Attribute<bool> error_;
  Orb::DirectoryEntry directoryEntry_{*this};
};

KORU_EXPORT Orb::Ptr<TransportMethodError> transportMethodErrorFactory(const Orb::String& chipName);

}  // namespace KoruRegFile
