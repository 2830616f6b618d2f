#pragma once

// One way to ask about a chip's registers, whichever source the register map has: a CSV file or the
// platform's hardware model. Owned by a transport implementation, used on the framework's thread.

#include <cstdint>
#include <memory>
#include <string_view>

#include "Hardware/KoruRegFile.h"
#include "KoruRegFile/Export.h"
#include "KoruRegFile/RegisterFile.h"
#include "Orb/Notifier.h"

namespace KoruRegFile {

// A set of register names, in the order in which they were inserted.
class KORU_EXPORT RegList : public Orb::Notifier<RegList> {
 public:
  class Notifiee : public Orb::NotifieeOf<RegList> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onRegisterName(const Orb::String& /*name*/) {}
  };
  using RegisterNames = Orb::Collection<Orb::String, bool>;

  // The names, for as long as somebody looks at them: keeps the list alive, which regList() has
  // made for the caller alone, as in `for (const auto& name :
  // transport->regList()->registerName())`.
  class KORU_EXPORT RegisterNameView {
   public:
    using Key = RegisterNames::Key;
    using Value = RegisterNames::Value;

    explicit RegisterNameView(const RegList& list)
        : list_(Orb::keepAlive(&list)), names_(list.registerName_) {}
    size_t size() const { return names_.size(); }
    bool empty() const { return names_.empty(); }
    RegisterNames::const_iterator begin() const { return names_.begin(); }
    RegisterNames::const_iterator end() const { return names_.end(); }
    bool has(std::string_view name) const { return names_.has(name); }
    const bool* find(std::string_view name) const { return names_.find(name); }

   private:
    Orb::Ptr<const RegList> list_;
    const RegisterNames& names_;
  };

  static Orb::Ptr<RegList> RegListIs();
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }

  RegisterNameView registerName() const { return RegisterNameView(*this); }
  bool registerNameHas(std::string_view name) const { return registerName_.has(name); }
  // A name that is there already tells nobody.
  void registerNameIs(const Orb::String& name);
  void registerNameDel(const Orb::String& name);
  void registerNameDelAll();

 private:
  RegisterNames registerName_;
};

KORU_EXPORT Orb::Ptr<RegList> regListFactory();

// The hardware model's type of the same number. Throws std::out_of_range for a type without one.
KORU_EXPORT Hardware::KoruRegFile::HardwareRegisterType hardwareRegisterType(RegisterType type);

// Until init() it has no registers.
class KORU_EXPORT RegFileHelper : public Orb::Entity {
 public:
  using Model = Hardware::KoruRegFile::HardwareRegisterFile;
  using HardwareRegister = Hardware::KoruRegFile::HardwareRegister;

  // Registers of a CSV map are at most this wide, in bits.
  static constexpr uint32_t csvMaximumWidth = 32;

  explicit RegFileHelper(const Orb::String& name);
  ~RegFileHelper() override;
  static Orb::Ptr<RegFileHelper> RegFileHelperIs(const Orb::String& name);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  // Takes the map from the file at `csvPath`, or from the model when the path is empty. Throws
  // std::runtime_error when there is neither, and what RegisterFile throws; the helper then keeps
  // the source that it had.
  void init(const Orb::String& csvPath, uint8_t addrBlockSize, const Orb::Ptr<Model>& regFileModel);

  const Orb::String& name() const { return name_; }
  const RegisterFile* csvRegFile() const { return csvRegFile_.get(); }
  void csvRegFileIs(std::unique_ptr<RegisterFile> csvRegFile);
  const Orb::Ptr<Model>& regFileModel() const { return regFileModel_; }

  // The register of that name; throws std::runtime_error when there is none. Allocates nothing when
  // it succeeds. A null pointer is a std::logic_error.
  HardwareRegister findRegisterByName(const Orb::String& name) const;
  HardwareRegister findRegisterByName(const char* name) const;
  // The name at that address; throws std::runtime_error when there is none.
  Orb::String findRegNameByAddr(uint32_t address) const;
  // The same without copies: the address of the register of that name, and the name at an address,
  // valid while the helper keeps its source.
  uint32_t regNameToAddr(const char* name) const;
  const Orb::String& regNameAtAddr(uint32_t address) const;
  // Asks for the memory that the latter will touch (Orb/Fetch.h), as far as that is known.
  void regFetch(uint32_t address) const;
  bool hasRegName(const Orb::String& name) const;
  // Another one whenever a name may stand for another register.
  uint64_t version() const {
    return regFileModel_ ? sourceVersion_ + regFileModel_->changes() : sourceVersion_;
  }
  // A new list of all register names, in the order of the source.
  Orb::Ptr<RegList> regList() const;

  // Lets go of the register file. Called when the helper is deleted.
  void handleDeletion();

 private:
  HardwareRegister find(std::string_view name) const;

  const Orb::String name_;
  std::unique_ptr<RegisterFile> csvRegFile_;
  Orb::Ptr<Model> regFileModel_;
  uint64_t sourceVersion_ = 0;  // another one for each source
};

KORU_EXPORT Orb::Ptr<RegFileHelper> regFileHelperFactory(const Orb::String& name);

}  // namespace KoruRegFile
