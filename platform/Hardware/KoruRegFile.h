#pragma once

// A chip's registers as the platform's hardware model describes them: the other source of a
// register map beside a CSV file, and the terms in which registers are handed to the transports.

#include <cstdint>

#include "Orb/EntityStrep.h"
#include "Orb/Enum.h"
#include "Orb/Notifier.h"
#include "Orb/Value.h"

namespace Hardware::KoruRegFile {

enum class HardwareRegisterType : uint8_t {
  unknown = 0,
  reserved = 1,
  constant = 2,
  cfg = 3,
  sts = 4,
  counter = 5,
  ctl = 6,
};

// One register. The default value, with an empty name, stands for "no such register".
struct ORB_EXPORT HardwareRegister : Orb::Value<HardwareRegister> {
  HardwareRegister() = default;
  // The address is in the transport's address space; both widths are in bits.
  HardwareRegister(Orb::String n, HardwareRegisterType t, bool isWriteable, uint32_t atAddress,
                   uint32_t bits, uint32_t maximumBits)
      : name(std::move(n)),
        type(t),
        writeable(isWriteable),
        address(atAddress),
        width(bits),
        maximumWidth(maximumBits) {}

  static constexpr auto description() {
    using R = HardwareRegister;
    return Orb::describe("Hardware::KoruRegFile::HardwareRegister", Orb::named("name", &R::name),
                         Orb::named("type", &R::type), Orb::named("writeable", &R::writeable),
                         Orb::named("address", &R::address), Orb::named("width", &R::width),
                         Orb::named("maximumWidth", &R::maximumWidth));
  }

  Orb::String name;
  HardwareRegisterType type = HardwareRegisterType::unknown;
  bool writeable = false;
  uint32_t address = 0;
  uint32_t width = 0;
  uint32_t maximumWidth = 0;
};

// The registers of one chip, by name. Filled by the platform; observed and read by agents.
class ORB_EXPORT HardwareRegisterFile : public Orb::Notifier<HardwareRegisterFile> {
 public:
  class Notifiee : public Orb::NotifieeOf<HardwareRegisterFile> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onReg(const Orb::String& /*name*/) {}
  };
  using Registers = Orb::Collection<Orb::String, HardwareRegister>;

  explicit HardwareRegisterFile(Orb::String name) : name_(std::move(name)) {}
  static Orb::Ptr<HardwareRegisterFile> HardwareRegisterFileIs(const Orb::String& name);

  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  const Orb::String& name() const { return name_; }
  // In the order in which they were inserted.
  const Registers& reg() const { return reg_; }
  // The register of that name, or the default register.
  const HardwareRegister& reg(std::string_view name) const { return reg_(name); }
  bool regHas(std::string_view name) const { return reg_.has(name); }
  // The first register inserted at that address, or the default register.
  const HardwareRegister& regAtAddress(uint32_t address) const;

  // Inserts, or overwrites the register of that name.
  void regIs(const HardwareRegister& reg);
  void regDel(const Orb::String& name);
  void regDelAll();
  // How often that has happened.
  uint64_t changes() const { return changes_; }

 private:
  const Orb::String name_;
  uint64_t changes_ = 0;
  Registers reg_;
  Orb::DirectoryEntry directoryEntry_{*this};
};

ORB_EXPORT Orb::Ptr<HardwareRegisterFile> hardwareRegisterFileFactory(const Orb::String& name);

}  // namespace Hardware::KoruRegFile

template <>
struct Orb::EnumDescription<Hardware::KoruRegFile::HardwareRegisterType> {
  using T = Hardware::KoruRegFile::HardwareRegisterType;
  static constexpr const char* typeName = "Hardware::KoruRegFile::HardwareRegisterType";
  static constexpr EnumName<T> names[] = {
      {T::unknown, "unknown"}, {T::reserved, "reserved"}, {T::constant, "const"}, {T::cfg, "cfg"},
      {T::sts, "sts"},         {T::counter, "counter"},   {T::ctl, "ctl"},
  };
};
