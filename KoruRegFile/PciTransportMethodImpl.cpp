#include "KoruRegFile/PciTransportMethodImpl.h"

#include <fmt/format.h>

#include <csignal>
#include <stdexcept>

#include "Keel/GenericSigbusHandler.h"
#include "Orb/Trace.h"

namespace KoruRegFile {

using Keel::GenericSigbusHandler;

namespace {

Orb::TraceHandle trace("PciTransportMethodImpl");

Orb::Ptr<Plat::PciPaxImpl> pciPaxOf(const Orb::Ptr<Plat::PaxImpl>& pax) {
  const auto pciPax = Orb::dynamic_pointer_cast<Plat::PciPaxImpl>(pax);
  if (!pciPax) throw std::runtime_error("PciPaxImpl cast error!");
  return pciPax;
}

}  // namespace

PciTransportMethodImpl::PciTransportMethodImpl(
    const Orb::Ptr<Plat::PaxImpl>& pax, const char* name,
    const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile)
    : BaseTransportMethodImpl(name, addrBlockSize, regFile),
      pciPax_(pciPaxOf(pax)),
      sigbusGuarded_(!pciPax_->sigbusRaised()) {
  if (!sigbusGuarded_) return;
  Plat::PaxImplGlobalControl::sigbusHandlerAutoInstallIs(false);
  GenericSigbusHandler::initialize(nullptr);
}

uint32_t PciTransportMethodImpl::regRead(const char* regName) {
  return _regRWCommon(false, regName, failedReadValue);
}

void PciTransportMethodImpl::regWrite(const char* regName, uint32_t value) {
  _regRWCommon(true, regName, value);
}

uint32_t PciTransportMethodImpl::foundRegRead(const HardwareRegister& reg) {
  return access(false, reg, failedReadValue);
}

void PciTransportMethodImpl::foundRegWrite(const HardwareRegister& reg, uint32_t value) {
  access(true, reg, value);
}

// A process that survives the signal goes on as if the device were ready.
void PciTransportMethodImpl::handleNotReady() const {
  ORB_TRACE(trace, 0, "Hardware not ready, {} SIGBUS", sigbusGuarded_ ? "throwing" : "raising");
  if (sigbusGuarded_) throw GenericSigbusHandler::SigbusException();
  ::raise(SIGBUS);
}

uint32_t PciTransportMethodImpl::_regRWCommon(bool write, const char* regName, uint32_t value) {
  return access(write, regFileHelper()->findRegisterByName(regName), value);
}

uint32_t PciTransportMethodImpl::access(bool write, const HardwareRegister& reg, uint32_t value) {
  if (!hardwareReady()) handleNotReady();
  if (reg.maximumWidth < reg.width) {
    throw std::runtime_error(fmt::format("Register {} size not supported!", reg.name));
  }
  if (write) {
    sigbusGuarded_ ? pciPax_->guardedWrite32(reg.address, value)
                   : pciPax_->write32(reg.address, value);
    return value;
  }
  sigbusGuarded_ ? pciPax_->guardedRead32(reg.address, value) : pciPax_->read32(reg.address, value);
  const uint32_t unused = (reg.maximumWidth - reg.width) % 32;
  return value << unused >> unused;
}

}  // namespace KoruRegFile
