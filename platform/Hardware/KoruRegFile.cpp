#include "Hardware/KoruRegFile.h"

#include "Orb/EntityType.h"

namespace Hardware::KoruRegFile {

Orb::Ptr<HardwareRegisterFile> hardwareRegisterFileFactory(const Orb::String& name) {
  return Orb::make<HardwareRegisterFile>(name);
}

Orb::Ptr<HardwareRegisterFile> HardwareRegisterFile::HardwareRegisterFileIs(
    const Orb::String& name) {
  return hardwareRegisterFileFactory(name);
}

const Orb::EntityType& HardwareRegisterFile::entityType() {
  using F = HardwareRegisterFile;
  static const auto type =
      Orb::EntityTypeOf<F>("Hardware::KoruRegFile::HardwareRegisterFile")
          .attribute("name", &F::name)
          .attribute("reg", static_cast<const Registers& (F::*)() const>(&F::reg))
          .operation("regIs", &F::regIs, {"reg"})
          .operation("regDel", &F::regDel, {"name"})
          .operation("regDelAll", &F::regDelAll, {});
  return type;
}

const HardwareRegister& HardwareRegisterFile::regAtAddress(uint32_t address) const {
  static const HardwareRegister none;
  for (const auto& [name, reg] : reg_) {
    if (reg.address == address) return reg;
  }
  return none;
}

void HardwareRegisterFile::regIs(const HardwareRegister& reg) {
  ++changes_;
  collectionIs(reg_, reg.name, reg, &Notifiee::onReg);
}

void HardwareRegisterFile::regDel(const Orb::String& name) {
  ++changes_;
  collectionDel(reg_, name, &Notifiee::onReg);
}

void HardwareRegisterFile::regDelAll() {
  ++changes_;
  collectionDelAll(reg_, &Notifiee::onReg);
}

}  // namespace Hardware::KoruRegFile
