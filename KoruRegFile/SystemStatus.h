#pragma once

// Which chips a system has, and which profile each of them runs. An agent fills these entities,
// from the platform's own status (Ore/Central.h) or by itself; SystemChipStatusSmBase reacts to
// them. Used on the framework's thread.

#include <cstdint>

#include "KoruRegFile/Export.h"
#include "Orb/EntityStrep.h"
#include "Orb/Notifier.h"
#include "Orb/Value.h"
#include "Ore/Central.h"

namespace KoruRegFile {

// A version of the hardware's interface.
class KORU_EXPORT PossibleHwApi : public Orb::Value<PossibleHwApi> {
 public:
  PossibleHwApi() = default;
  PossibleHwApi(uint32_t major, uint32_t minor) : major_(major), minor_(minor) {}
  static constexpr auto description() {
    return Orb::describe("KoruRegFile::PossibleHwApi", Orb::named("major", &PossibleHwApi::major_),
                         Orb::named("minor", &PossibleHwApi::minor_));
  }
  uint32_t major() const { return major_; }
  uint32_t minor() const { return minor_; }

 private:
  uint32_t major_ = 0;
  uint32_t minor_ = 0;
};

// A profile that a chip can run; the default one means none.
class KORU_EXPORT PossibleProfile : public Orb::Value<PossibleProfile> {
 public:
  PossibleProfile() = default;
  PossibleProfile(Orb::String profileName, const PossibleHwApi& hwApi)
      : profileName_(std::move(profileName)), hwApi_(hwApi) {}
  static constexpr auto description() {
    return Orb::describe("KoruRegFile::PossibleProfile",
                         Orb::named("profileName", &PossibleProfile::profileName_),
                         Orb::named("hwApi", &PossibleProfile::hwApi_));
  }
  const Orb::String& profileName() const { return profileName_; }
  const PossibleHwApi& hwApi() const { return hwApi_; }

 private:
  Orb::String profileName_;
  PossibleHwApi hwApi_;
};

// Where things are mounted in shared memory.
class KORU_EXPORT MountConstants : public Orb::Value<MountConstants> {
 public:
  // A printf format that takes a name: the path of a system status entity.
  static constexpr const char* systemStatusPathFormat = "hardware/%s/system/status";
  // What the paths of all configuration tables begin with.
  static constexpr const char* shadowFieldsConfigPathPrefix = "KoruRegFile/shadowFieldsConfig";
  static constexpr auto description() { return Orb::describe("KoruRegFile::MountConstants"); }
};

class KORU_EXPORT PossibleChipStatus : public Orb::Notifier<PossibleChipStatus> {
 public:
  class Notifiee : public Orb::NotifieeOf<const PossibleChipStatus> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onDevId() {}
    virtual void onProfileName() {}
  };

  explicit PossibleChipStatus(const Orb::String& name) : name_(name) {}
  static Orb::Ptr<PossibleChipStatus> PossibleChipStatusIs(const Orb::String& name);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  const Orb::String& name() const { return name_; }
  const Ore::Central::DeviceId& devId() const { return devId_(); }
  void devIdIs(const Ore::Central::DeviceId& devId) {
    attributeIs(devId_, devId, &Notifiee::onDevId);
  }
  const Orb::String& profileName() const { return profileName_(); }
  void profileNameIs(const Orb::String& profileName) {
    attributeIs(profileName_, profileName, &Notifiee::onProfileName);
  }

 private:
  const Orb::String name_;
  Orb::Attribute<Ore::Central::DeviceId> devId_;
  Orb::Attribute<Orb::String> profileName_;
  Orb::DirectoryEntry directoryEntry_{*this};
};

class KORU_EXPORT PossibleSystemStatus : public Orb::Notifier<PossibleSystemStatus> {
 public:
  class Notifiee : public Orb::NotifieeOf<const PossibleSystemStatus> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onChipStatus(const Orb::String& /*name*/) {}
    virtual void onProfile(const Orb::String& /*profileName*/) {}
  };
  using ChipStatuses = Orb::Collection<Orb::String, Orb::Ptr<PossibleChipStatus>>;
  using Profiles = Orb::Collection<Orb::String, PossibleProfile>;

  explicit PossibleSystemStatus(const Orb::String& name) : name_(name) {}
  static Orb::Ptr<PossibleSystemStatus> PossibleSystemStatusIs(const Orb::String& name);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  const Orb::String& name() const { return name_; }

  const ChipStatuses& chipStatus() const { return chipStatus_; }
  // Null when there is none of that name.
  const Orb::Ptr<PossibleChipStatus>& chipStatus(std::string_view name) const {
    return chipStatus_(name);
  }
  bool chipStatusHas(std::string_view name) const { return chipStatus_.has(name); }
  // Creates an entry, in the place of one that is there, and returns it. Reactors hear of it before
  // the caller can set its attributes.
  Orb::Ptr<PossibleChipStatus> chipStatusIs(const Orb::String& name);
  void chipStatusDel(const Orb::String& name);
  void chipStatusDelAll();

  const Profiles& profile() const { return profile_; }
  // The default profile when there is none of that name.
  const PossibleProfile& profile(std::string_view name) const { return profile_(name); }
  bool profileHas(std::string_view name) const { return profile_.has(name); }
  void profileIs(const PossibleProfile& profile);
  void profileDel(const Orb::String& profileName);
  void profileDelAll();

 private:
  const Orb::String name_;
  ChipStatuses chipStatus_;
  Profiles profile_;
  Orb::DirectoryEntry directoryEntry_{*this};
};

KORU_EXPORT Orb::Ptr<PossibleChipStatus> possibleChipStatusFactory(const Orb::String& name);
KORU_EXPORT Orb::Ptr<PossibleSystemStatus> possibleSystemStatusFactory(const Orb::String& name);

}  // namespace KoruRegFile
