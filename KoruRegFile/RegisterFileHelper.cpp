#include "KoruRegFile/RegisterFileHelper.h"

#include <fmt/format.h>

#include <array>
#include <stdexcept>

#include "KoruRegFile/RegisterRecord.h"
#include "Orb/EntityType.h"

namespace KoruRegFile {

using Hardware::KoruRegFile::HardwareRegister;
using Hardware::KoruRegFile::HardwareRegisterType;

Orb::Ptr<RegList> regListFactory() { return Orb::make<RegList>(); }

Orb::Ptr<RegList> RegList::RegListIs() { return regListFactory(); }

const Orb::EntityType& RegList::entityType() {
  static const auto type = Orb::EntityTypeOf<RegList>("KoruRegFile::RegList")
                               .attribute("registerName", &RegList::registerName)
                               .operation("registerNameIs", &RegList::registerNameIs, {"name"})
                               .operation("registerNameDel", &RegList::registerNameDel, {"name"})
                               .operation("registerNameDelAll", &RegList::registerNameDelAll, {});
  return type;
}

void RegList::registerNameIs(const Orb::String& name) {
  if (registerName_.has(name)) return;
  collectionIs(registerName_, name, true, &Notifiee::onRegisterName);
}

void RegList::registerNameDel(const Orb::String& name) {
  collectionDel(registerName_, name, &Notifiee::onRegisterName);
}

void RegList::registerNameDelAll() { collectionDelAll(registerName_, &Notifiee::onRegisterName); }

HardwareRegisterType hardwareRegisterType(RegisterType type) {
  static constexpr std::array table = {
      HardwareRegisterType::unknown, HardwareRegisterType::reserved, HardwareRegisterType::constant,
      HardwareRegisterType::cfg,     HardwareRegisterType::sts,      HardwareRegisterType::counter,
      HardwareRegisterType::ctl,
  };
  return table.at(static_cast<size_t>(type));
}

namespace {

HardwareRegister toHardwareRegister(const Register& reg) {
  return {reg.name,  hardwareRegisterType(reg.type), reg.writeable, reg.address,
          reg.width, RegFileHelper::csvMaximumWidth};
}

}  // namespace

Orb::Ptr<RegFileHelper> regFileHelperFactory(const Orb::String& name) {
  return Orb::make<RegFileHelper>(name);
}

Orb::Ptr<RegFileHelper> RegFileHelper::RegFileHelperIs(const Orb::String& name) {
  return regFileHelperFactory(name);
}

RegFileHelper::RegFileHelper(const Orb::String& name) : name_(name) {}

RegFileHelper::~RegFileHelper() { handleDeletion(); }

const Orb::EntityType& RegFileHelper::entityType() {
  using H = RegFileHelper;
  using Find = HardwareRegister (H::*)(const Orb::String&) const;
  static const auto type =
      Orb::EntityTypeOf<H>("KoruRegFile::RegFileHelper")
          .attribute("name", &H::name)
          .attribute("regFileModel", &H::regFileModel)
          .operation("init", &H::init, {"csvPath", "addrBlockSize", "regFileModel"})
          .operation("findRegisterByName", static_cast<Find>(&H::findRegisterByName), {"name"})
          .operation("findRegNameByAddr", &H::findRegNameByAddr, {"address"})
          .operation("hasRegName", &H::hasRegName, {"name"});
  return type;
}

void RegFileHelper::init(const Orb::String& csvPath, uint8_t addrBlockSize,
                         const Orb::Ptr<Model>& regFileModel) {
  if (!csvPath.empty()) {
    csvRegFileIs(std::make_unique<RegisterFile>(csvPath.c_str(), addrBlockSize));
    regFileModel_.reset();
    return;
  }
  if (!regFileModel) throw std::runtime_error("Must provide Csv path or OrbPtr");
  csvRegFileIs(nullptr);
  regFileModel_ = regFileModel;
}

void RegFileHelper::csvRegFileIs(std::unique_ptr<RegisterFile> csvRegFile) {
  sourceVersion_ += uint64_t{1} << 32;  // whatever the changes of a model
  csvRegFile_ = std::move(csvRegFile);
}

HardwareRegister RegFileHelper::find(std::string_view name) const {
  if (csvRegFile_) return toHardwareRegister(csvRegFile_->findRegisterByName(name));
  const HardwareRegister* found = regFileModel_ ? regFileModel_->reg().find(name) : nullptr;
  if (!found) throwNoRegister(name);
  return *found;
}

HardwareRegister RegFileHelper::findRegisterByName(const Orb::String& name) const {
  return find(name);
}

HardwareRegister RegFileHelper::findRegisterByName(const char* name) const {
  if (!name) throw std::logic_error("a register name is a null pointer");
  return find(name);
}

uint32_t RegFileHelper::regNameToAddr(const char* name) const {
  return csvRegFile_ ? csvRegFile_->findRegisterByName(name).address
                     : findRegisterByName(name).address;
}

Orb::String RegFileHelper::findRegNameByAddr(uint32_t address) const {
  return regNameAtAddr(address);
}

const Orb::String& RegFileHelper::regNameAtAddr(uint32_t address) const {
  if (csvRegFile_) return csvRegFile_->regNameAtAddr(address);
  if (regFileModel_) {
    const HardwareRegister& found = regFileModel_->regAtAddress(address);
    if (found) return found.name;
  }
  throw std::runtime_error(fmt::format("RegisterFile does not have address: {}!", address));
}

void RegFileHelper::regFetch(uint32_t address) const {
  if (csvRegFile_) csvRegFile_->regFetch(address);
}

bool RegFileHelper::hasRegName(const Orb::String& name) const {
  if (csvRegFile_) return csvRegFile_->hasRegName(name.view());
  return regFileModel_ && regFileModel_->regHas(name);
}

Orb::Ptr<RegList> RegFileHelper::regList() const {
  const auto list = regListFactory();
  if (csvRegFile_) {
    for (const Register& reg : csvRegFile_->registers()) list->registerNameIs(reg.name);
  } else if (regFileModel_) {
    for (const auto& [name, reg] : regFileModel_->reg()) list->registerNameIs(name);
  }
  return list;
}

void RegFileHelper::handleDeletion() { csvRegFileIs(nullptr); }

}  // namespace KoruRegFile
